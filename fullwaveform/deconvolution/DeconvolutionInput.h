#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/scanner/SystemWave.h>

namespace FullWaveform {

/// The samples of a waveform's range, both ends included; empty when there is no such range in the record.
template <class T>
std::span<T const> rangeOf(std::span<T const> samples, WavePoints<T> const& wave) {
  // Records of one or two samples have a range that ends before it starts.
  if (wave.globalEnd <= wave.globalStart || wave.globalEnd >= samples.size()) {
    return {};
  }
  return samples.subspan(wave.globalStart, wave.globalEnd - wave.globalStart + std::size_t{1});
}

/// The system wave at the step of an up-sampled signal; null when the scanner has none.
///
/// @param length  values
inline Holdex::StrongPtr<Holdex::Chunk<double>> systemWaveOf(ScannerDevice const& device,
                                                             std::uint32_t length) {
  // A system wave of no samples, or steps of no length, is none.
  if (device.size_sys == 0 || device.up_sampling == 0) {
    return {};
  }
  double const step = device.sampling_time / device.up_sampling;
  return createNormalizedSysWave(device.expsum_a, device.expsum_b, step, length, {});
}

}  // namespace FullWaveform
