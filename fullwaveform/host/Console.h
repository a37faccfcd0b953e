#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <fullwaveform/Export.h>

namespace Holdex {

/// A message stream: everything written to one Console object is sent as one message by its destructor.
///
/// The process-wide sink receives the messages; without one they are written to standard error, one per
/// line. The sink may be called from any thread; it receives one message at a time. Its exceptions are
/// ignored: a message must never change the result of the computation that wrote it. Messages written by a
/// sink itself are written to standard error.
class FULLWAVEFORM_EXPORT Console {
 public:
  using Sink = std::function<void(std::string const& message)>;

  Console() = default;
  Console(Console const&) = delete;
  Console& operator=(Console const&) = delete;
  ~Console();

  Console& operator<<(std::string_view text);

  /// Replaces the process-wide sink and returns the previous one; an empty function restores standard error.
  /// When this returns, the previous sink is no longer running, unless it is the caller.
  static Sink setSink(Sink sink);

 private:
  std::string message;
};

}  // namespace Holdex
