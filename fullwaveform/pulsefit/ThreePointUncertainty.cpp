#include <fullwaveform/pulsefit/ThreePointUncertainty.h>

#include <algorithm>
#include <cmath>

#include <fullwaveform/fitting/SampleLogarithm.h>
#include <fullwaveform/pulsefit/ThreePointBatch.h>

namespace FullWaveform {
namespace {

constexpr double reachInSigmas = 3.0;  // of an echo, for the samples without one

/// Samples outside three standard deviations of all echoes.
std::size_t quietSamples(std::size_t size, std::span<double const> sigmas) {
  double left = static_cast<double>(size);
  for (double const sigma : sigmas) {
    left -= std::isfinite(sigma) ? 2.0 * reachInSigmas * sigma + 1.0 : 0.0;
  }
  return static_cast<std::size_t>(std::max(left, 0.0));
}

/// The sample on which the fit of a position was centred; 0 if it has not two neighbours.
std::size_t middleOf(double position, std::size_t size) {
  // Of two equal samples the fit takes the first for the middle one.
  double const before = position - 0.5;
  if (!(before > 0.0 && before + 2.0 <= static_cast<double>(size))) {  // true for NaN
    return 0;
  }
  auto const whole = static_cast<std::size_t>(before);
  return static_cast<double>(whole) < before ? whole + 1 : whole;
}

/// Enters the samples around an echo as the fit reads them.
void enterSamples(ThreePointBatch& batch, std::size_t lane, std::span<unsigned short const> samples,
                  std::size_t middle) {
  std::size_t const reach = std::min({ThreePointBatch::reach, middle, samples.size() - 1 - middle});
  for (std::size_t i = 0; i < ThreePointBatch::samplesPerEcho; ++i) {
    std::size_t const sample = middle + i;  // `reach` of the batch after the sample
    bool const isNear = i + reach >= ThreePointBatch::reach && i <= ThreePointBatch::reach + reach;
    unsigned short const counts =
        isNear ? std::max<unsigned short>(samples[sample - ThreePointBatch::reach], 1) : 0;
    batch.samples[i][lane] = counts;
    batch.logarithms[i][lane] = isNear ? logarithmOf(counts) : 0.0;
  }
}

}  // namespace

ThreePointUncertainty::ThreePointUncertainty() : batch(std::make_unique<ThreePointBatch>()) {}
ThreePointUncertainty::~ThreePointUncertainty() = default;

void ThreePointUncertainty::add(FittedSamples const& waveform, SampleNoise const& noise,
                                ThreePointEchoes const& echoes, std::span<EchoUncertainty> result) {
  std::span<unsigned short const> const samples = waveform.samples;
  double const baselineVariance = noise.baselineVariance(quietSamples(samples.size(), echoes.sigmas));
  for (std::size_t k = 0; k < echoes.positions.size(); ++k) {
    result[k] = EchoUncertainty();
    std::size_t const middle = middleOf(echoes.positions[k], samples.size());
    if (middle == 0 || waveform.isClipped(middle - 1, 3)) {
      continue;
    }
    std::size_t const lane = batch->count++;
    enterSamples(*batch, lane, samples, middle);
    for (std::size_t lag = 0; lag < ThreePointBatch::lags; ++lag) {
      batch->covariances[lag][lane] = lag < noise.covariance.size() ? noise.covariance[lag] : 0.0;
    }
    batch->offsets[lane] = echoes.positions[k] - static_cast<double>(middle);
    batch->baselineVariances[lane] = baselineVariance;
    batch->results[lane] = &result[k];
    if (batch->count == ThreePointBatch::capacity) {
      finish();
    }
  }
}

void ThreePointUncertainty::finish() {
  static ThreePointKernel const kernel = threePointKernel(widestInstructionSet());
  ThreePointVariances variances;
  kernel(*batch, variances);
  for (std::size_t lane = 0; lane < batch->count; ++lane) {
    *batch->results[lane] = {.position = std::sqrt(variances.position[lane]),
                             .amplitude = std::sqrt(variances.amplitude[lane]),
                             .fwhm = std::sqrt(variances.fwhm[lane])};
  }
  batch->count = 0;
}

}  // namespace FullWaveform
