#include <fullwaveform/deconvolution/DeconvolutionInput.h>

#include <limits>
#include <stdexcept>
#include <string>

#include <fullwaveform/scanner/SystemWave.h>

namespace FullWaveform {

std::span<unsigned short const> signalSamples(std::span<unsigned short const> samples,
                                              WavePoints<unsigned short> const& wave) {
  // Waveforms of one or two samples have a range that ends before it starts.
  if (wave.globalEnd <= wave.globalStart || wave.globalEnd >= samples.size()) {
    return {};
  }
  return samples.subspan(wave.globalStart, wave.globalEnd - wave.globalStart + std::size_t{1});
}

std::size_t signalLength(std::span<unsigned short const> signal, std::uint32_t steps) {
  std::size_t const length = signal.empty() ? 0 : (signal.size() - 1) * steps;
  return length < 2 ? 0 : length;
}

double firstPosition(WavePoints<unsigned short> const& wave, std::uint32_t steps) {
  double const start = wave.globalStart;
  return steps == 1 ? start : start - steps * 0.5;
}

std::uint32_t upsampledLength(std::uint32_t count, std::uint32_t steps) {
  if (count == 0) {
    return 1U - steps;
  }
  std::uint64_t const length = std::uint64_t{count - 1U} * steps + 1U;
  // Half of the maximum of FFTW, so that the sum of the lengths of signal and system wave does not exceed it.
  if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max() / 2)) {
    throw std::length_error("RichardsonLucy: " + std::to_string(count) + " samples up-sampled " +
                            std::to_string(steps) + " times exceed the maximum transform length");
  }
  return static_cast<std::uint32_t>(length);
}

Holdex::StrongPtr<Holdex::Chunk<double>> upsampledSystemWave(ScannerDevice const& device) {
  if (device.size_sys == 0 || device.up_sampling == 0) {
    return {};
  }
  double const step = device.sampling_time / device.up_sampling;
  return createNormalizedSysWave(device.expsum_a, device.expsum_b, step,
                                 upsampledLength(device.size_sys, device.up_sampling), {});
}

}  // namespace FullWaveform
