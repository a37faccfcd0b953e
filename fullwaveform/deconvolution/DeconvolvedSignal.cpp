#include <fullwaveform/deconvolution/DeconvolvedSignal.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/scanner/SystemWave.h>

namespace FullWaveform {
namespace {

/// The samples of the waveform's range, both ends included; empty when there is no such range in the record.
std::span<unsigned short const> rangeOf(std::span<unsigned short const> samples,
                                        WavePoints<unsigned short> const& wave) {
  if (!wave.signalIsAboveNoise() || wave.globalEnd <= wave.globalStart || wave.globalEnd >= samples.size()) {
    return {};
  }
  return samples.subspan(wave.globalStart, wave.globalEnd - wave.globalStart + std::size_t{1});
}

Holdex::StrongPtr<Holdex::Chunk<double>> systemWaveOf(ScannerDevice const& device) {
  if (device.size_sys != 0 && device.up_sampling != 0) {
    double const step = device.sampling_time / device.up_sampling;
    std::uint32_t const length = (device.size_sys - 1) * device.up_sampling + 1;
    if (auto wave = createNormalizedSysWave(device.expsum_a, device.expsum_b, step, length, {})) {
      return wave;
    }
  }
  throw std::invalid_argument("the scanner has no system wave to deconvolve with");
}

/// What `scaleToCounts` does, before the values become whole: the last one does not count for the largest.
void scale(std::span<double> values, double maximum, double noise) {
  auto const end = values.size() > 1 ? values.end() - 1 : values.end();
  double const factor = (maximum - noise) / *std::max_element(values.begin(), end);
  for (double& value : values) {
    value = value * factor + noise;
  }
}

}  // namespace

DeconvolvedSignal deconvolvedSignal(std::span<unsigned short const> samples,
                                    WavePoints<unsigned short> const& wave, ScannerDevice const& device) {
  auto const systemWave = systemWaveOf(device);
  std::uint32_t const steps = device.up_sampling;
  // Half the up-sampling factor, in samples, as the echoes have it.
  DeconvolvedSignal signal{{}, wave.globalStart - (steps == 1 ? 0.0 : steps * 0.5), 1.0 / steps};
  auto const range = rangeOf(samples, wave);
  if (range.empty()) {
    return signal;
  }
  std::vector<double> observed((range.size() - 1) * steps);
  // Long enough for the signal and the system wave without overlap.
  auto const fftLength = static_cast<std::uint32_t>(observed.size() + systemWave->size() - 1);
  ConvolutionWorkspace workspace({systemWave->data(), systemWave->size()}, fftLength);
  double const maximum = observe(range, steps, wave.noise, workspace.instructionSet, observed);
  signal.values = observed;
  deconvolve(observed, workspace, centreOf(systemWave->size()), signal.values);
  scale(signal.values, maximum, wave.noise);
  return signal;
}

}  // namespace FullWaveform
