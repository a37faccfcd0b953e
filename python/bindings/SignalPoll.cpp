#include "SignalPoll.h"

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace {

constexpr std::chrono::milliseconds interval(50);

}  // namespace

void SignalPoll::operator()() {
  auto const now = Clock::now();
  if (now < next) {
    return;
  }
  next = now + interval;
  nb::gil_scoped_acquire const acquire;
  if (PyErr_CheckSignals() != 0) {
    throw nb::python_error();
  }
}

std::function<void()> signalPoll() {
  auto const threading = nb::module_::import_("threading");
  bool const isMain = threading.attr("current_thread")().is(threading.attr("main_thread")());
  return isMain ? std::function<void()>(SignalPoll()) : nullptr;
}
