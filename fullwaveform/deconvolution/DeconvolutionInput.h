#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

/// Inputs of a deconvolution, derived from the waveform and the scanner.
namespace FullWaveform {

/// Samples from the start of the first segment to the end of the last, both included; empty when the waveform
/// has no such range.
std::span<unsigned short const> signalSamples(std::span<unsigned short const> samples,
                                              WavePoints<unsigned short> const& wave);

/// Number of values of those samples after up-sampling with `steps` values per sampling interval; 0 when
/// there are fewer than two, too few to deconvolve.
std::size_t signalLength(std::span<unsigned short const> signal, std::uint32_t steps);

/// Position of a deconvolved signal's first value in the waveform, samples.
///
/// With up-sampling it is shifted by half the factor, in samples and not in steps: positions have this
/// constant offset, which the estimation of a system wave measures.
double firstPosition(WavePoints<unsigned short> const& wave, std::uint32_t steps);

/// Number of values of `count` up-sampled samples: (count - 1) * steps + 1.
///
/// For no samples this wraps to 1 - steps, so that sums of lengths stay correct.
/// @throws std::length_error when no transform is long enough
std::uint32_t upsampledLength(std::uint32_t count, std::uint32_t steps);

/// System wave of `upsampledLength(size_sys, up_sampling)` values; null when the scanner has none.
Holdex::StrongPtr<Holdex::Chunk<double>> upsampledSystemWave(ScannerDevice const& device);

}  // namespace FullWaveform
