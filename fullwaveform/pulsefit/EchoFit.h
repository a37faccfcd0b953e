#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/Hypothesis.h>
#include <fullwaveform/pulsefit/PulseKernels.h>
#include <fullwaveform/pulsefit/PulseModel.h>
#include <fullwaveform/pulsefit/PulseTable.h>
#include <fullwaveform/pulsefit/SampleWeights.h>
#include <fullwaveform/pulsefit/WidthPrior.h>

namespace FullWaveform {

/// Symmetric matrix of the second derivatives of half the energy, or its inverse, in rows: position,
/// amplitude and variance of each echo, then the baseline.
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
  void setScatterFactor(double factor);
  /// Sets whether widths are expected as in waveforms with several echoes, or as in those with one.
  void setWidthsOfSeveral(bool areOfSeveral);
  void setCosts(double ofEcho, double ofFreeWidth) {
    echoCost = ofEcho;
    widthCost = ofFreeWidth;
  }

  /// Moves a hypothesis to the nearest minimum, sets its energy and cost, and evaluates it.
  void refine(Hypothesis& hypothesis);
  /// Prepares residual and weights at a hypothesis.
  void evaluate(Hypothesis& hypothesis);

  /// Signal minus model at the last evaluation; 0 for clipped samples that the model exceeds.
  [[nodiscard]] std::span<double const> residual() const { return {current().residual.data(), size}; }
  /// 1 / s^2 of each sample at the last evaluation; 0 for clipped samples that the model exceeds.
  [[nodiscard]] std::span<double const> weights() const { return {current().weights.data(), size}; }
  [[nodiscard]] std::span<std::uint32_t const> clipped() const { return clippedSamples; }
  [[nodiscard]] std::size_t samples() const { return size; }
  /// Standard deviation of a sample without light.
  [[nodiscard]] double noise() const { return noiseDeviation; }
  [[nodiscard]] WidthPrior const& widthPrior() const {
    return areWidthsOfSeveral ? priorOfSeveral : priorOfOne;
  }

  /// Covariance of the parameters at the last evaluated hypothesis.
  /// @return false if the matrix is singular
  bool covariance(Hypothesis const& hypothesis, FitMatrix& result);

 private:
  /// The pulse of one echo at the samples `first` to `first + count`, and the prior of its width.
  struct Column {
    double position = std::numeric_limits<double>::quiet_NaN();
    double variance = 0.0;
    std::size_t first = 0;
    std::size_t count = 0;
    PulseColumns pulse{};
    WidthPrior::Energy width{};
  };

  /// Everything that belongs to one point of the parameters.
  struct Evaluation {
    std::vector<double> memory;
    std::vector<double> residual;
    std::vector<double> weights;
    SampleWeights segments;
    double weightSum = 0.0;  ///< without clipped samples that the model exceeds
    ResidualSums sums{};
    std::array<Column, maxFittedEchoes> columns;
  };

  using Parameters = std::array<double, maxFitParameters>;

  /// Upper triangle of the second derivatives of half the energy, in rows of `stride` values, with the
  /// descent direction in the column after it. The baseline is the last parameter: far echoes are coupled by
  /// it alone.
  struct NormalEquations {
    std::size_t count = 0;
    std::size_t stride = 0;
    std::array<double, maxFitParameters*(maxFitParameters + 1)> rows{};

    [[nodiscard]] double* row(std::size_t index) { return rows.data() + index * stride; }
  };

  /// A hypothesis some way from another one.
  struct Step {
    Hypothesis to;
    double move = 0.0;  ///< largest change of a position, samples
    bool isClamped = false;
  };

  [[nodiscard]] Evaluation& current() { return evaluations[currentIndex]; }
  [[nodiscard]] Evaluation const& current() const { return evaluations[currentIndex]; }
  [[nodiscard]] Evaluation& trial() { return evaluations[1 - currentIndex]; }

  void resize(Evaluation& evaluation) const;
  void place(FittedEcho const& echo, Column& column) const;
  void setResidual(Hypothesis const& hypothesis, Evaluation& at) const;
  void setWeights(Hypothesis const& hypothesis, Evaluation& at) const;
  void evaluateAt(Hypothesis& hypothesis, Evaluation& at) const;
  void keep(Hypothesis const& hypothesis);
  bool improve(Hypothesis& hypothesis, double& damping);
  void setEquations(Hypothesis const& hypothesis);
  [[nodiscard]] double gainOf(Hypothesis const& from, Hypothesis const& to);
  [[nodiscard]] Step stepped(Hypothesis const& from, Parameters const& step) const;
  [[nodiscard]] double costOf(Hypothesis const& hypothesis) const;

  PulseModel model;
  PulseTable const* table;
  PulseKernels const* kernels;
  WidthPrior priorOfOne;
  WidthPrior priorOfSeveral;
  bool areWidthsOfSeveral = false;
  double noiseDeviation;
  double baselinePrior;  ///< standard deviation, counts
  double scatter;
  // Few samples show an echo outside the waveform, so that their noise is not that of a matched filter.
  double outsideFactor;
  double echoCost = 40.0;
  double widthCost = 14.0;

  std::size_t size = 0;
  std::size_t stride = 0;
  std::vector<double> signal;
  std::vector<std::uint32_t> clippedSamples;
  std::array<Evaluation, 2> evaluations;
  std::size_t currentIndex = 0;
  Hypothesis evaluated;  ///< to which the current evaluation belongs
  bool isEvaluated = false;
  NormalEquations equations;
  NormalEquations damped;
};

}  // namespace FullWaveform
