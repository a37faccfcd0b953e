#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/PulseKernels.h>
#include <fullwaveform/pulsefit/PulseModel.h>
#include <fullwaveform/pulsefit/PulseTable.h>
#include <fullwaveform/pulsefit/WidthPrior.h>

namespace FullWaveform {

inline constexpr std::size_t maxFittedEchoes = 10;
inline constexpr std::size_t maxFitParameters = 1 + 3 * maxFittedEchoes;

/// An echo as the fit moves it.
struct EchoState {
  double position = 0.0;   ///< sample index of the maximum of the pulse
  double amplitude = 0.0;  ///< factor of the pulse, counts
  double variance = 0.0;   ///< added to the pulse, samples squared
  bool hasFreeWidth = false;
};

/// A hypothesis: a baseline and some echoes, and how well they explain the waveform.
struct Hypothesis {
  double baseline = 0.0;
  std::size_t count = 0;
  std::array<EchoState, maxFittedEchoes> echoes{};
  double energy = 0.0;     ///< -2 ln of likelihood and priors, up to a constant
  double cost = 0.0;       ///< energy plus the cost of the echoes: the smaller, the better
  double chiSquare = 0.0;  ///< sum of the weighted squares of the residual
  bool hasConverged = false;

  void add(EchoState const& echo) { echoes[count++] = echo; }
  void remove(std::size_t index) {
    for (std::size_t k = index; k + 1 < count; ++k) {
      echoes[k] = echoes[k + 1];
    }
    --count;
  }
};

/// Symmetric matrix of the second derivatives of half the energy, or its inverse, in rows: baseline, then
/// position, amplitude and variance of each echo.
using FitMatrix = std::array<double, maxFitParameters * maxFitParameters>;

/// Fits baseline and echoes of one waveform with a given number of echoes: the minimum of
///
///   sum of r^2 / s^2 + ln s^2, plus the energies of the priors of baseline and variances,
///
/// by Levenberg-Marquardt. The variance s^2 of a sample is that of the noise plus (scatter x amplitude)^2 of
/// each echo whose pulse reaches it. Samples at the digitiser's limit only say that the light was at least
/// that strong. Keeps its memory from one waveform to the next.
class EchoFit {
 public:
  /// @param table  must outlive the fit
  EchoFit(PulseModel const& model, PulseTable const& table, InstructionSet set);

  /// Takes the next waveform.
  ///
  /// @param limit  samples from here on are clipped
  void setSignal(std::span<unsigned short const> samples, double limit);
  /// Sets the factor on the scatter: larger than 1 while echoes are looked for.
  void setScatterFactor(double factor) { scatter = factor * model.scatter; }
  void setCosts(double ofEcho, double ofFreeWidth) {
    echoCost = ofEcho;
    widthCost = ofFreeWidth;
  }

  /// Moves a hypothesis to the nearest minimum and sets its energy and cost.
  void refine(Hypothesis& hypothesis);
  /// Prepares residual and weights at a hypothesis.
  void evaluate(Hypothesis& hypothesis);

  /// Signal minus model at the last evaluation.
  [[nodiscard]] std::span<double const> residual() const { return {current.residual.data(), size}; }
  /// 1 / s^2 of each sample at the last evaluation; 0 for clipped samples that the model exceeds.
  [[nodiscard]] std::span<double const> weights() const { return {current.weights.data(), size}; }
  [[nodiscard]] std::span<std::uint32_t const> clipped() const { return clippedSamples; }
  [[nodiscard]] std::size_t samples() const { return size; }
  /// Standard deviation of a sample without light.
  [[nodiscard]] double noise() const { return noiseDeviation; }
  [[nodiscard]] WidthPrior const& widthPrior() const { return prior; }

  /// Covariance of the parameters at the last evaluated hypothesis.
  /// @return false if the matrix is singular
  bool covariance(Hypothesis const& hypothesis, FitMatrix& result);

 private:
  /// The pulse of one echo at the samples `first` to `first + count`.
  struct Column {
    std::size_t first = 0;
    std::size_t count = 0;
    PulseColumns plain{};
    PulseColumns weighted{};
  };

  /// Everything that belongs to one point of the parameters.
  struct Evaluation {
    std::vector<double> memory;
    std::vector<double> model;
    std::vector<double> residual;
    std::vector<double> weights;
    std::array<Column, maxFittedEchoes> columns;
  };

  using Gradient = std::array<double, maxFitParameters>;

  void resize(Evaluation& evaluation) const;
  void place(EchoState const& echo, std::size_t index, Evaluation& at) const;
  double setWeights(Hypothesis const& hypothesis, Evaluation& at) const;
  void evaluateAt(Hypothesis& hypothesis, Evaluation& at);
  void normalEquations(Hypothesis const& hypothesis, Evaluation& at, FitMatrix& matrix, Gradient& gradient);
  [[nodiscard]] Hypothesis stepped(Hypothesis const& from, Gradient const& step, double& move) const;
  [[nodiscard]] double costOf(Hypothesis const& hypothesis) const;

  PulseModel model;
  PulseTable const* table;
  PulseKernels const* kernels;
  WidthPrior prior;
  double noiseDeviation;
  double baselinePrior;  ///< standard deviation, counts
  double scatter;
  double echoCost = 40.0;
  double widthCost = 8.0;

  std::size_t size = 0;
  std::size_t stride = 0;
  std::vector<double> signal;
  std::vector<std::uint32_t> clippedSamples;
  Evaluation current;
  Evaluation trial;
};

}  // namespace FullWaveform
