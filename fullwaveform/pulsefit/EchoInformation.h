#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/fitting/SmoothedValue.h>
#include <fullwaveform/pulsefit/EchoUncertainty.h>
#include <fullwaveform/pulsefit/EnvelopeMatrix.h>
#include <fullwaveform/pulsefit/PulseKernels.h>

namespace FullWaveform {

/// Standard deviations of echoes that were fitted to a waveform by least squares, all together.
///
/// With the derivatives J of the samples by the parameters, the noise e moves the parameters by K J^T e,
/// where K = (J^T J)^-1, and a wrong baseline moves them in the same way. For white noise this is the inverse
/// of the Fisher information, the Cramer-Rao bound of unbiased estimates (S. M. Kay, Fundamentals of
/// Statistical Signal Processing: Estimation Theory, 1993, chapters 3 and 4). A height is the sum of the
/// fitted one and of the smoothed residual at the echo, which adds the noise that the fit leaves there.
///
/// Echoes are coupled only where their samples overlap, and the influence of noise is followed over a limited
/// number of coupled echoes, so that the time grows linearly with their number.
/// Keeps its memory: one object serves one thread at a time.
class EchoInformation {
 public:
  explicit EchoInformation(InstructionSet set = widestInstructionSet());

  [[nodiscard]] InstructionSet instructionSet() const { return set; }

  /// Where an echo was fitted.
  struct Place {
    std::size_t first;       ///< first sample that was fitted
    std::size_t count;       ///< number of fitted samples; may be 0
    std::size_t parameters;  ///< 3, or 2 without a width
    double maximum;          ///< position of its maximum, samples
    bool isClipped;          ///< height and width are wrong: they were fitted to clipped samples
  };

  /// Takes the next waveform.
  void begin(std::size_t samples, std::size_t noiseLag);

  /// Adds an echo; in any order.
  ///
  /// @return columns for the derivatives of the fitted samples by position (`byLag`), amplitude (`value`) and
  ///         standard deviation (`byVariance`): 0, to be filled. Values behind the fitted samples, up to
  ///         whole lanes, must remain 0. Valid until the next call.
  PulseColumns add(Place const& place);

  /// @param result  one per echo, in the order in which they were added; NaN where its samples do not
  ///                determine it
  void solve(SampleNoise const& noise, std::span<EchoUncertainty> result);

 private:
  struct Echo {
    Place place;
    std::size_t index;         ///< of its result
    std::size_t columns;       ///< index of its columns in `memory`
    std::size_t firstCoupled;  ///< first of the echoes with which it shares samples; does not decrease
    std::size_t row;           ///< of its first parameter in the matrices of its group
  };
  /// A range of echoes, or of rows of the matrices.
  struct Range {
    std::size_t begin;
    std::size_t end;
  };

  [[nodiscard]] bool isCrowded() const;
  void order();
  [[nodiscard]] PulseColumns columnsOf(Echo const& echo);
  [[nodiscard]] PulseColumns filteredOf(Echo const& echo);
  void filter(SampleNoise const& noise);
  bool couple();
  [[nodiscard]] std::size_t quietSamples() const;
  void solveGroup(Range group, std::span<EchoUncertainty> result);
  void fillMatrices(Range group);
  void multiply(Echo const& echo, PulseColumns const& columns, std::size_t early, Echo const& other,
                EnvelopeMatrix& matrix);
  EchoUncertainty uncertaintyOf(std::size_t echo, Range neighbours);
  void project(SmoothingWeights const& smoothing, Range neighbours);
  void select(std::size_t parameter, Range rows);
  void selectSmoothed(std::size_t amplitude, Range rows);
  [[nodiscard]] double deviation(double variance, double onBaseline) const;
  [[nodiscard]] double noiseOf(double ofWhiteNoise, Range rows) const;
  [[nodiscard]] double baselineOf(Range rows) const;
  [[nodiscard]] double smoothedVariance(SmoothingWeights const& smoothing) const;

  InstructionSet set;
  PulseKernels const* kernels;
  std::size_t size = 0;
  std::size_t lag = 0;
  double noiseVariance = 0.0;
  double baselineVariance = 0.0;
  std::array<double, 2 * maxNoiseLag + 1> taps{};  ///< correlation of the noise at -lag to lag
  std::vector<double> memory;
  std::vector<double> ones;  ///< weights of the samples
  std::size_t used = 0;      ///< values of `memory`
  std::size_t fitted = 0;    ///< samples of all echoes
  std::vector<Echo> echoes;
  std::vector<std::size_t> firstColumns;
  std::vector<double> baselineProducts;  ///< J^T 1
  std::vector<double> smoothed;          ///< J^T s with the weights s of the smoothing
  std::vector<double> smoothedNoise;     ///< J^T R s with the correlation R of the noise
  std::vector<double> influence;         ///< of each J^T e, with the noise e, on a value
  EnvelopeMatrix information;            ///< J^T J, then its Cholesky factor
  EnvelopeMatrix noiseProducts;          ///< J^T R J, of correlated noise
};

}  // namespace FullWaveform
