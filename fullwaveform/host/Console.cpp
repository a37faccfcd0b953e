#include <fullwaveform/host/Console.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

namespace Holdex {
namespace {

using SharedSink = std::shared_ptr<Console::Sink const>;

// One message at a time; kept apart from the choice of the sink, which a sink may change.
std::mutex passing;
std::mutex choosing;
thread_local bool insideSink = false;

SharedSink& chosenSink() {
  // Never destroyed: consoles may still speak while static objects of other libraries die.
  static auto* sink = new SharedSink(std::make_shared<Console::Sink const>());
  return *sink;
}

SharedSink currentSink() {
  std::scoped_lock const lock(choosing);
  return chosenSink();
}

/// Marks this thread as running a sink.
struct InsideSink {
  InsideSink() { insideSink = true; }
  InsideSink(InsideSink const&) = delete;
  InsideSink& operator=(InsideSink const&) = delete;
  ~InsideSink() { insideSink = false; }
};

void pass(std::string const& message) {
  if (insideSink) {
    std::cerr << message << '\n';
    return;
  }
  std::scoped_lock const lock(passing);
  InsideSink const mark;
  SharedSink const sink = currentSink();
  if (*sink) {
    (*sink)(message);
  } else {
    std::cerr << message << '\n';
  }
}

}  // namespace

Console::~Console() {
  if (message.empty()) {
    return;
  }
  try {
    pass(message);
  } catch (...) {  // NOLINT(bugprone-empty-catch): meant, see the class comment.
  }
}

Console& Console::operator<<(std::string_view text) {
  message += text;
  return *this;
}

Console::Sink Console::setSink(Sink sink) {
  std::unique_lock<std::mutex> const quiet =
      insideSink ? std::unique_lock<std::mutex>() : std::unique_lock<std::mutex>(passing);
  auto fresh = std::make_shared<Sink const>(std::move(sink));
  std::scoped_lock const lock(choosing);
  return *std::exchange(chosenSink(), std::move(fresh));
}

}  // namespace Holdex
