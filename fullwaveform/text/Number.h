#pragma once

#include <cstdint>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Shortest decimal text that reads back to the same double: fixed or scientific notation, whichever is
/// shorter, independent of any locale. Not-a-number gives "nan" or "-nan", infinities "inf" and "-inf".
FULLWAVEFORM_EXPORT std::string shortestText(double value);

/// The same for single precision: 0.1F gives "0.1", not the digits of the widened value.
FULLWAVEFORM_EXPORT std::string shortestText(float value);

/// A signed 32-bit decimal. Unsigned fields of reports pass through here, so 4294967295 prints "-1".
FULLWAVEFORM_EXPORT std::string signedText(std::int32_t value);

/// Report form of an unsigned field: its bits read as a signed 32-bit integer.
FULLWAVEFORM_EXPORT std::string signedText(std::uint32_t value);

}  // namespace FullWaveform
