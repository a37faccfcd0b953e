#pragma once

#include <cstdint>

#include <fullwaveform/Export.h>

namespace Holdex {

/// The framework's identity counter: every new or emptied pointer and every reference-counted object takes
/// the next value, starting at 1. Thread-safe.
class FULLWAVEFORM_EXPORT PointerID {
 public:
  static std::uint64_t next() noexcept;
};

}  // namespace Holdex
