#include <fullwaveform/host/PointerID.h>

#include <atomic>

namespace Holdex {
namespace {

// Only the values count, no memory is published through them: relaxed order is enough.
std::atomic<std::uint64_t> lastIdentifier{0};

}  // namespace

std::uint64_t PointerID::next() noexcept {
  return lastIdentifier.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint64_t PointerID::last() noexcept {
  return lastIdentifier.load(std::memory_order_relaxed);
}

}  // namespace Holdex
