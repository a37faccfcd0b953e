#pragma once

#include <string_view>

#include <fullwaveform/Export.h>

namespace Holdex {

/// Pointer diagnostics: the one place where misuse of the framework's pointers is reported.
/// Each report is one message on the Console.
class FULLWAVEFORM_EXPORT SpeakPtr {
 public:
  /// Reports a misuse after which the caller continues.
  static void report(std::string_view misuse);
  /// Reports a programming error and aborts the process.
  [[noreturn]] static void abort(std::string_view misuse);
};

}  // namespace Holdex
