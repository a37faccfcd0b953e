#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/Console.h>

namespace FullWaveform::Testing {

/// Collects every console message of the process while it lives; puts the former sink back at its end.
class ConsoleCapture {
 public:
  ConsoleCapture()
      : former(Holdex::Console::setSink([this](std::string const& message) {
          std::scoped_lock const lock(mutex);
          collected.push_back(message);
        })) {}
  ConsoleCapture(ConsoleCapture const&) = delete;
  ConsoleCapture& operator=(ConsoleCapture const&) = delete;
  ~ConsoleCapture() { Holdex::Console::setSink(std::move(former)); }

  [[nodiscard]] std::vector<std::string> messages() const {
    std::scoped_lock const lock(mutex);
    return collected;
  }

 private:
  mutable std::mutex mutex;
  std::vector<std::string> collected;
  Holdex::Console::Sink former;
};

}  // namespace FullWaveform::Testing
