#include <fullwaveform/host/PointerID.h>

#include <atomic>

namespace Holdex {
namespace {

// Relaxed order is enough: the counter publishes no other memory.
std::atomic<std::uint64_t> lastIdentifier{0};

}  // namespace

std::uint64_t PointerID::next() noexcept {
  return lastIdentifier.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace Holdex
