#pragma once

#include <filesystem>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Plots one series of values as a line into a PDF file; x is the index of the value.
///
/// @param data   `count` values; null or none: a page without a line, and a message on the console
/// @param file   written anew; one that cannot be written is left alone, silently
/// @param flag   passed on to the plotter
///
/// Instantiated for `unsigned short` (samples in counts) and `double` (computed series).
template <class T>
FULLWAVEFORM_EXPORT void printWave(T const* data, unsigned int const& count,
                                   std::filesystem::path const& file, bool const& flag);

extern template void printWave<unsigned short>(unsigned short const*, unsigned int const&,
                                               std::filesystem::path const&, bool const&);
extern template void printWave<double>(double const*, unsigned int const&, std::filesystem::path const&,
                                       bool const&);

}  // namespace FullWaveform
