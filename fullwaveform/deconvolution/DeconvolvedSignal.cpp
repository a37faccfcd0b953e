#include <fullwaveform/deconvolution/DeconvolvedSignal.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/deconvolution/DeconvolutionInput.h>
#include <fullwaveform/deconvolution/FftConvolution.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>

namespace FullWaveform {

DeconvolvedSignal deconvolvedSignal(std::span<unsigned short const> samples,
                                    WavePoints<unsigned short> const& wave, ScannerDevice const& device) {
  auto const systemWave = upsampledSystemWave(device);
  if (!systemWave) {
    throw std::invalid_argument("the scanner has no system wave; deconvolution needs its exponential sums");
  }
  std::uint32_t const steps = device.up_sampling;
  DeconvolvedSignal signal{{}, firstPosition(wave, steps), 1.0 / steps};
  auto const range = signalSamples(samples, wave);
  std::size_t const length = signalLength(range, steps);
  if (!wave.signalIsAboveNoise() || length == 0) {
    return signal;
  }
  ConvolutionWorkspace workspace({systemWave->data(), systemWave->size()},
                                 static_cast<std::uint32_t>(length + systemWave->size() - 1));
  InstructionSet const set = workspace.instructionSet;
  std::vector<double> observed(length);
  double const maximum = prepareObserved(range, steps, wave.noise, set, observed);
  signal.values = observed;
  deconvolve(observed, workspace, kernelCentre(systemWave->size()), signal.values);
  double const factor = (maximum - wave.noise) / scalingMaximum(set, signal.values);
  for (double& value : signal.values) {
    value = value * factor + wave.noise;
  }
  return signal;
}

}  // namespace FullWaveform
