#pragma once

#include <cstdint>
#include <string_view>

#include <fullwaveform/Export.h>

namespace Holdex {

/// Pointer diagnostics: the one place where misuse of the framework's pointers is reported.
/// Each report is one message on the Console; the number of reports is kept for supervision.
class FULLWAVEFORM_EXPORT SpeakPtr {
 public:
  /// Reports a misuse from which the caller goes on.
  static void report(std::string_view misuse);
  /// Reports a programming error and aborts the process.
  [[noreturn]] static void abort(std::string_view misuse);
  /// Reports since the start of the process.
  static std::uint64_t count() noexcept;
};

}  // namespace Holdex
