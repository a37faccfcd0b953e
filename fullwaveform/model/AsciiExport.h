#pragma once

#include <string>
#include <string_view>

#include <fullwaveform/Export.h>
#include <fullwaveform/model/Peak.h>

namespace FullWaveform {

/// One line of the ASCII export: label, amplitude, idx, std and value, a blank between each two, a newline.
///
/// Numbers are the shortest text that reads back to the same value; label and value are the caller's.
FULLWAVEFORM_EXPORT std::string asciiLine(Peak const& peak, std::string_view label, double value);

}  // namespace FullWaveform
