#pragma once

#include <array>
#include <cstddef>
#include <span>

namespace FullWaveform {

/// Variance that an echo adds to the samples from `first` to before `end`, counts squared.
struct VarianceBand {
  std::size_t first = 0;
  std::size_t end = 0;
  double variance = 0.0;
};

/// Samples from `first` to before `end` with the same weight.
struct WeightSegment {
  std::size_t first;
  std::size_t end;
  double weight;
};

/// Weights 1 / variance of the samples. The variance, that of quiet samples plus those of the bands in which
/// a sample lies, is constant between the ends of bands: few divisions and logarithms are needed.
class SampleWeights {
 public:
  static constexpr std::size_t maxBands = 10;

  /// @param bands    at most `maxBands`, inside `weights`
  /// @param weights  receives the weight of every sample
  void set(double quiet, std::span<VarianceBand const> bands, std::span<double> weights);

  [[nodiscard]] std::span<WeightSegment const> segments() const { return {parts.data(), count}; }
  /// Sum of the weights of all samples.
  [[nodiscard]] double sum() const { return weightSum; }
  /// Sum of ln(variance / quiet) of all samples.
  [[nodiscard]] double logarithms() const { return logarithmSum; }

 private:
  std::array<WeightSegment, 2 * maxBands + 1> parts{};
  std::size_t count = 0;
  double weightSum = 0.0;
  double logarithmSum = 0.0;
};

}  // namespace FullWaveform
