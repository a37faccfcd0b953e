#include <fullwaveform/host/Console.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <utility>

namespace Holdex {
namespace {

using SharedSink = std::shared_ptr<Console::Sink const>;

// Two locks, because a sink that receives a message may replace the sink.
std::mutex deliveryMutex;
std::mutex sinkMutex;
thread_local bool insideSink = false;

SharedSink& activeSink() {
  // Never destroyed: static objects of other libraries may send messages from their destructors.
  static auto* sink = new SharedSink(std::make_shared<Console::Sink const>());
  return *sink;
}

SharedSink currentSink() {
  std::scoped_lock const lock(sinkMutex);
  return activeSink();
}

/// Marks this thread as running a sink.
struct InsideSink {
  InsideSink() { insideSink = true; }
  InsideSink(InsideSink const&) = delete;
  InsideSink& operator=(InsideSink const&) = delete;
  ~InsideSink() { insideSink = false; }
};

void deliver(std::string const& message) {
  if (insideSink) {
    std::cerr << message << '\n';
    return;
  }
  std::scoped_lock const lock(deliveryMutex);
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
    deliver(message);
  } catch (...) {  // NOLINT(bugprone-empty-catch): intentional, see the class comment.
  }
}

Console& Console::operator<<(std::string_view text) {
  message += text;
  return *this;
}

Console::Sink Console::setSink(Sink sink) {
  std::unique_lock<std::mutex> const noDelivery =
      insideSink ? std::unique_lock<std::mutex>() : std::unique_lock<std::mutex>(deliveryMutex);
  auto next = std::make_shared<Sink const>(std::move(sink));
  std::scoped_lock const lock(sinkMutex);
  return *std::exchange(activeSink(), std::move(next));
}

}  // namespace Holdex
