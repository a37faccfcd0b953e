#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

struct GaussianColumns;

/// A sum of Gaussians is a flat array of parameters: amplitude (counts), position and standard deviation
/// (sample indices) of the first, of the second, and so on.
inline constexpr std::size_t parametersPerGaussian = 3;

/// One Gaussian of the model, from its three parameters.
struct GaussianShape {
  explicit GaussianShape(double const* parameters)
      : amplitude(std::abs(parameters[0])),
        position(std::abs(parameters[1])),
        width(std::abs(parameters[2])),
        perVariance(reciprocal(width * width)),
        perCube(reciprocal(width * (width * width))) {}

  /// Clamped to DBL_MAX so that 0 x reciprocal stays 0, not NaN.
  static double reciprocal(double x) {
    return x > 0.0 ? std::min(1.0 / x, std::numeric_limits<double>::max()) : 1.0 / x;
  }

  double amplitude;
  double position;
  double width;
  double perVariance;
  double perCube;
};

/// Value at `x` of the Gaussian of height 1, exp(-(x - position)^2 / (2 width^2)).
double gaussianAt(double x, double position, double width);

/// Residual and derivatives of a sum of Gaussians that is fitted to a signal.
///
/// Memory is kept between signals: one column of samples per parameter, and one for the residual.
class GaussianSum {
 public:
  explicit GaussianSum(InstructionSet set = widestInstructionSet()) : instructionSet(set) {}

  /// Copies a signal.
  ///
  /// @param values      counts above the noise
  /// @param first       sample index of the first value
  /// @param parameters  number of parameters that it will be evaluated with, a multiple of
  ///                    `parametersPerGaussian`
  void setSignal(std::span<double const> values, int first, std::size_t parameters);

  /// Sets the residual, sum - signal at every sample in counts, and the derivatives with respect to the
  /// amplitudes. Amplitudes and positions enter with their absolute values.
  /// @return the sum of the squares of the residual
  double evaluate(std::span<double const> parameters);

  /// Sets the other derivatives of the residual, at the parameters of the last evaluation.
  ///
  /// All derivatives are those with respect to the absolute values of the parameters. Intentional: no sign
  /// factor, so a fit that crossed zero is not pulled back.
  ///
  /// @param squares  receives the sum of the squares of every column
  void differentiate(std::span<double> squares);

  [[nodiscard]] std::size_t samples() const { return count; }
  /// Distance of two columns in memory; columns are padded with zeros.
  [[nodiscard]] std::size_t stride() const { return columnStride; }
  /// Column of a parameter; the one after the last is the residual.
  [[nodiscard]] double* column(std::size_t parameter) { return signal() + (parameter + 1) * columnStride; }

 private:
  GaussianColumns columnsFrom(std::size_t parameter);
  double* signal() { return memory.data() + aligned; }

  InstructionSet instructionSet;
  std::vector<GaussianShape> shapes;  ///< of the parameters of the last evaluation
  std::vector<double> memory;
  std::size_t aligned = 0;  ///< index of the signal in the memory, at a cache line; the columns follow
  std::size_t count = 0;
  std::size_t columnStride = 0;
  std::size_t parameterCount = 0;
  double start = 0.0;  ///< sample index of the first row
};

}  // namespace FullWaveform
