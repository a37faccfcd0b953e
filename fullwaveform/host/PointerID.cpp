#include <fullwaveform/host/PointerID.h>

#include <fullwaveform/host/ThreadedCounter.h>

namespace Holdex {
namespace {

std::atomic<std::uint64_t> drawnIdentifiers{0};
thread_local ThreadedCounter identifiers;

}  // namespace

std::uint64_t PointerID::next() noexcept {
  return identifiers.next(drawnIdentifiers) + 1;
}

std::uint64_t PointerID::last() noexcept {
  return identifiers.upcoming();
}

}  // namespace Holdex
