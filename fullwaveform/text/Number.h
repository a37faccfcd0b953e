#pragma once

#include <cstdint>
#include <string>

namespace FullWaveform {

/// Shortest decimal text that reads back to the same double: fixed or scientific notation, whichever is
/// shorter, independent of any locale. NaN gives "nan" or "-nan", infinities "inf" and "-inf".
std::string shortestText(double value);

/// The same for single precision: 0.1F gives "0.1", not the digits of the widened value.
std::string shortestText(float value);

/// A signed 32-bit decimal.
std::string signedText(std::int32_t value);

/// An unsigned field as reports print it, a signed 32-bit decimal: 4294967295 gives "-1".
std::string signedText(std::uint32_t value);

}  // namespace FullWaveform
