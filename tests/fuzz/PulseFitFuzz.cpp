// The pulse fit of arbitrary waveforms with arbitrary models and limits.
#include <fullwaveform/pulsefit/PulseFit.h>

#include <cmath>
#include <memory>
#include <vector>

#include "support/Inputs.h"

namespace FullWaveform::Fuzz {
namespace {

/// A Gaussian of a width in sixteenths of a sample, or arbitrary values.
void setPulse(Bytes& bytes, PulseModel& model) {
  unsigned int const kind = bytes.upTo(3);
  if (kind == 0) {
    model.pulse = bytes.numbers(bytes.upTo(40));
    model.firstLag = bytes.number();
    model.lagStep = bytes.number();
    return;
  }
  model.lagStep = 0.25;
  model.firstLag = -4.0;
  double const width = (8.0 + bytes.upTo(31)) / 16.0;
  for (int i = 0; i <= 32; ++i) {
    double const lag = (model.firstLag + model.lagStep * i) / width;
    model.pulse.push_back(std::exp(-0.5 * lag * lag));
  }
  if (kind == 2) {  // ringing, or an irregular pulse
    for (double& value : model.pulse) {
      value += (bytes.byte() - 128.0) / 1024.0;
    }
  }
}

/// Layout: the pulse, bits of the values that follow (baseline, its spread, noise rms, noise correlation,
/// scatter, variance spread, widening; as counted, ordinary ones otherwise).
PulseModel modelFrom(Bytes& bytes) {
  PulseModel model;
  setPulse(bytes, model);
  model.baseline = 10.0;
  model.scatter = 0.004;
  unsigned int const given = bytes.byte();
  unsigned int bit = 1;
  for (double* const value :
       {&model.baseline, &model.baselineSpread, &model.noiseRms, &model.noiseCorrelation, &model.scatter,
        &model.varianceSpread, &model.widening}) {
    if ((given & bit) != 0) {
      *value = bytes.number();
    }
    bit *= 2;
  }
  return model;
}

PulseFitSettings settingsFrom(Bytes& bytes) {
  PulseFitSettings settings;
  unsigned int const given = bytes.byte();
  settings.digitiserLimit = (given & 1U) != 0 ? bytes.number() : 4.0 * bytes.byte();
  settings.falseAlarms = (given & 2U) != 0 ? bytes.number() : 1.0;
  settings.minEchoCost = (given & 4U) != 0 ? bytes.number() : 25.0;
  settings.maxVariance = (given & 8U) != 0 ? bytes.number() : 0.5;  // a small table: many inputs per second
  return settings;
}

std::vector<PulseEcho> copyOf(PulseFitResult const& result) {
  return {result.echoes.begin(), result.echoes.end()};
}

bool isNotNegative(double value) {
  return std::isnan(value) || value >= 0.0;
}

void requireValid(PulseFitResult const& result, std::size_t samples) {
  require(result.echoes.size() <= 10, "at most ten echoes");
  require(std::isfinite(result.baseline), "the baseline is finite");
  require(isNotNegative(result.reducedChiSquare), "chi square is not negative");
  require(result.clippedSamples <= samples, "clipped samples are samples");
  double before = -10.0;
  for (PulseEcho const& echo : result.echoes) {
    require(echo.position >= before, "echoes are in the order of their positions");
    require(echo.position <= static_cast<double>(samples) + 2.0, "an echo is in the waveform or near it");
    require(std::isfinite(echo.amplitude) && echo.amplitude > 0.0, "amplitudes are positive");
    require(std::isfinite(echo.fwhm) && echo.fwhm > 0.0, "widths are positive");
    require(isNotNegative(echo.sigmaPosition) && isNotNegative(echo.sigmaAmplitude) &&
                isNotNegative(echo.sigmaFwhm) && isNotNegative(echo.significance),
            "standard deviations are not negative");
    before = echo.position;
  }
}

void requireSame(std::vector<PulseEcho> const& left, std::vector<PulseEcho> const& right) {
  require(left.size() == right.size(), "repeating a waveform gives as many echoes");
  for (std::size_t k = 0; k < left.size(); ++k) {
    require(sameBits(left[k].position, right[k].position) &&
                sameBits(left[k].amplitude, right[k].amplitude) &&
                sameBits(left[k].sigmaPosition, right[k].sigmaPosition),
            "repeating a waveform gives the same echoes");
  }
}

}  // namespace
}  // namespace FullWaveform::Fuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  PulseModel const model = Fuzz::modelFrom(bytes);
  PulseFitSettings const settings = Fuzz::settingsFrom(bytes);
  PulseFit fit(model, settings);
  Testing::Samples const samples = bytes.samples();
  std::unique_ptr<unsigned short[]> const block = Testing::onHeap(samples);
  std::span<unsigned short const> const all(block.get(), samples.size());
  PulseFitResult const result = fit.apply(all);
  if (!fit.error().empty()) {
    Fuzz::require(result.echoes.empty(), "without a valid model there are no echoes");
    return 0;
  }
  Fuzz::requireValid(result, all.size());
  std::vector<PulseEcho> const first = Fuzz::copyOf(result);
  fit.apply(all.first(all.size() / 2));
  Fuzz::requireSame(first, Fuzz::copyOf(fit.apply(all)));
  return 0;
}
