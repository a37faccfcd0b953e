#include <fullwaveform/host/SpeakPtr.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include <fullwaveform/host/Console.h>

namespace Holdex {
namespace {

std::atomic<std::uint64_t> reports{0};

}  // namespace

void SpeakPtr::report(std::string_view misuse) {
  reports.fetch_add(1, std::memory_order_relaxed);
  Console() << "SpeakPtr: " + std::string(misuse);
}

void SpeakPtr::abort(std::string_view misuse) {
  report(misuse);
  std::abort();
}

std::uint64_t SpeakPtr::count() noexcept {
  return reports.load(std::memory_order_relaxed);
}

}  // namespace Holdex
