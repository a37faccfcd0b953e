#include <fullwaveform/host/Console.h>

#include <iostream>
#include <mutex>
#include <utility>

namespace Holdex {
namespace {

std::mutex sinkMutex;

Console::Sink& currentSink() {
  // Never destroyed: consoles may still speak while static objects of other libraries die.
  static auto* sink = new Console::Sink;
  return *sink;
}

void pass(std::string const& message) {
  std::scoped_lock const lock(sinkMutex);
  if (currentSink()) {
    currentSink()(message);
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
  std::scoped_lock const lock(sinkMutex);
  return std::exchange(currentSink(), std::move(sink));
}

}  // namespace Holdex
