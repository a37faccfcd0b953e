#include <fullwaveform/deconvolution/DeconvolvedSignal.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

namespace FullWaveform {
namespace {

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
  auto const systemWave = systemWaveOf(device, (device.size_sys - 1) * device.up_sampling + 1);
  if (!systemWave) {
    throw std::invalid_argument("the scanner has no system wave to deconvolve with");
  }
  std::uint32_t const steps = device.up_sampling;
  // Half the up-sampling factor, in samples, as the echoes have it.
  DeconvolvedSignal signal{{}, wave.globalStart - (steps == 1 ? 0.0 : steps * 0.5), 1.0 / steps};
  auto const range = rangeOf(samples, wave);
  if (!wave.signalIsAboveNoise() || range.empty()) {
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
