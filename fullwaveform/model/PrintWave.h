#pragma once

#include <filesystem>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Plots values against their index as a line in a PDF file.
///
/// Instantiated for `unsigned short` (samples in counts) and `double` (computed series).
/// @param data  `count` values; if null or empty, the page has no line and the console receives a message
/// @param file  overwritten; write errors are ignored
/// @param flag  passed to the plotter
template <class T>
FULLWAVEFORM_EXPORT void printWave(T const* data, unsigned int const& count,
                                   std::filesystem::path const& file, bool const& flag);

extern template void printWave<unsigned short>(unsigned short const*, unsigned int const&,
                                               std::filesystem::path const&, bool const&);
extern template void printWave<double>(double const*, unsigned int const&, std::filesystem::path const&,
                                       bool const&);

}  // namespace FullWaveform
