#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/Console.h>

namespace FullWaveform::Testing {

/// Collects all console messages of the process; the destructor restores the previous sink.
class ConsoleCapture {
 public:
  ConsoleCapture()
      : previous(Holdex::Console::setSink([this](std::string const& message) {
          std::scoped_lock const lock(mutex);
          collected.push_back(message);
        })) {}
  ConsoleCapture(ConsoleCapture const&) = delete;
  ConsoleCapture& operator=(ConsoleCapture const&) = delete;
  ~ConsoleCapture() { Holdex::Console::setSink(std::move(previous)); }

  [[nodiscard]] std::vector<std::string> messages() const {
    std::scoped_lock const lock(mutex);
    return collected;
  }

 private:
  mutable std::mutex mutex;
  std::vector<std::string> collected;
  Holdex::Console::Sink previous;
};

}  // namespace FullWaveform::Testing
