#pragma once

#include <string>
#include <string_view>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// One line of the ASCII export: label, amplitude, idx, std and value, separated by single blanks, and a
/// newline.
///
/// Numbers are written with the fewest digits that read back to the same value.
FULLWAVEFORM_EXPORT std::string asciiLine(Peak const& peak, std::string_view label, double value);

}  // namespace FullWaveform
