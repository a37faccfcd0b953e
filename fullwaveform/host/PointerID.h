#pragma once

#include <cstdint>

#include <fullwaveform/Export.h>

namespace Holdex {

/// The framework's identity counter: every new or emptied pointer and every reference-counted object takes
/// the next value. Thread-safe; values are unique within the process and never 0.
class FULLWAVEFORM_EXPORT PointerID {
 public:
  static std::uint64_t next() noexcept;
  /// The value handed out last, 0 before the first.
  static std::uint64_t last() noexcept;
};

}  // namespace Holdex
