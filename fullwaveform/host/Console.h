#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <fullwaveform/Export.h>

namespace Holdex {

/// A message stream: what is written to one Console object leaves as one message when the object dies.
///
/// Where messages go is decided by the process-wide sink; without one they are written to standard error, a
/// line each. The sink may be called from any thread; one message at a time is passed to it. What it throws
/// is swallowed: a message must never change the result of the computation that wrote it. Messages that a
/// sink itself writes go to standard error.
class FULLWAVEFORM_EXPORT Console {
 public:
  using Sink = std::function<void(std::string const& message)>;

  Console() = default;
  Console(Console const&) = delete;
  Console& operator=(Console const&) = delete;
  ~Console();

  Console& operator<<(std::string_view text);

  /// Replaces the process-wide sink and returns the one before; an empty function restores standard error.
  /// The former sink is no longer running when this returns, unless it is itself the caller.
  static Sink setSink(Sink sink);

 private:
  std::string message;
};

}  // namespace Holdex
