#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

struct GaussianColumns;

/// A sum of Gaussians as a flat run of parameters: amplitude (counts), position and standard deviation
/// (sample indices) of the first, of the second, and so on.
inline constexpr std::size_t parametersPerGaussian = 3;

/// The Gaussian that three parameters stand for in the model.
struct GaussianShape {
  explicit GaussianShape(double const* parameters)
      : amplitude(std::abs(parameters[0])),
        position(std::abs(parameters[1])),
        width(std::abs(parameters[2])),
        perVariance(reciprocal(width * width)),
        perCube(reciprocal(width * (width * width))) {}

  /// Finite for the least widths too: nothing times it stays nothing.
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
FULLWAVEFORM_EXPORT double gaussianAt(double x, double position, double width);

/// A stretch of signal, and what a sum of Gaussians makes of it: the derivatives and the residual.
///
/// Keeps its memory from one stretch to the next: a column of samples per parameter and one for the residual.
class FULLWAVEFORM_EXPORT GaussianSum {
 public:
  explicit GaussianSum(InstructionSet set = widestInstructionSet()) : instructionSet(set) {}

  /// Takes a new stretch.
  ///
  /// @param samples     counts
  /// @param noise       counts, taken off every sample
  /// @param first       sample index of the first value
  /// @param parameters  how many there will be, a multiple of `parametersPerGaussian`
  template <class T>
  void take(std::span<T const> samples, double noise, int first, std::size_t parameters) {
    resize(samples.size(), first, parameters);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      signal()[i] = static_cast<double>(samples[i]) - noise;
    }
  }

  /// Sets the residual, sum - signal at every sample in counts, and the derivatives with respect to the
  /// amplitudes. Amplitudes and positions enter with their absolute values.
  /// @return the sum of the squares of the residual
  double evaluate(std::span<double const> parameters);

  /// Sets the other derivatives of the residual, at the parameters that were evaluated last.
  ///
  /// The column of an amplitude is that of its absolute value: it has no sign factor, and neither has the
  /// column of a position. This is meant; a refinement that has crossed zero is not led back.
  ///
  /// @param squares  receives the sum of the squares of every column
  void differentiate(std::span<double> squares);

  [[nodiscard]] std::size_t samples() const { return count; }
  /// Distance of two columns in memory; what lies behind the samples of a column is 0.
  [[nodiscard]] std::size_t stride() const { return columnStride; }
  /// Column of a parameter; the one behind the last is the residual.
  [[nodiscard]] double* column(std::size_t parameter) { return signal() + (parameter + 1) * columnStride; }

 private:
  void resize(std::size_t samples, int firstIndex, std::size_t parameters);
  GaussianColumns columnsFrom(std::size_t parameter);
  double* signal() { return memory.data() + aligned; }

  InstructionSet instructionSet;
  std::vector<GaussianShape> shapes;  ///< of the parameters that were evaluated last
  std::vector<double> memory;
  std::size_t aligned = 0;  ///< where in the memory the signal begins, at a cache line; the columns follow
  std::size_t count = 0;
  std::size_t columnStride = 0;
  std::size_t parameterCount = 0;
  double start = 0.0;  ///< sample index of the first row
};

}  // namespace FullWaveform
