#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <fullwaveform/pulsefit/PulseModel.h>

namespace FullWaveform {

/// A pulse, widened or narrowed, with its derivatives, at every lag and variance.
///
/// The pulse and its first four derivatives are tabulated at sixteen phases of the sampling interval and at
/// nodes of the variance. Because widening by a variance w is exp(w/2 d2/dlag2), one Taylor series in the
/// derivatives by lag covers both the rest of the phase and the rest of the variance.
class PulseTable {
 public:
  static constexpr std::size_t derivatives = 5;  ///< orders 0 to 4
  static constexpr double minVariance = -0.4;    ///< samples squared

  /// The rows from which a pulse at a position is interpolated. Index 0 of the rows belongs to sample
  /// `first`.
  struct Place {
    int first;                                     ///< sample index, may lie outside the waveform
    int count;                                     ///< samples from `first` on; all others are 0
    std::array<double const*, derivatives> rows;   ///< with `laneCount` zeros after the last sample
    std::array<double, derivatives> coefficients;  ///< of the Taylor series
  };

  /// Height, width and area of the pulse of amplitude 1 that has a variance.
  struct Shape {
    double peak;
    double fwhm;  ///< samples
    double peakSlope;
    double fwhmSlope;  ///< derivatives by the variance
  };

  /// @param model        valid
  /// @param maxVariance  of an echo, samples squared; above `minVariance`
  explicit PulseTable(PulseModel const& model, double maxVariance = 25.0);

  [[nodiscard]] double maxVariance() const { return nodes.back().variance; }

  [[nodiscard]] Place placeAt(double position, double variance) const;
  [[nodiscard]] Shape shapeAt(double variance) const;

  /// The variance, within the range of the table, of the pulse of a full width at half maximum in samples.
  [[nodiscard]] double varianceAt(double fwhm) const;

  /// Value of a pulse of amplitude 1 at any lag from its position.
  [[nodiscard]] double valueAt(double lag, double variance) const;

  /// Values of the pulse of variance 0 at whole samples from `first` to `last`, plus a shift.
  [[nodiscard]] std::vector<double> samplesAt(double shift, int first, int last) const;

 private:
  struct Node {
    double variance;
    int firstSample;  ///< of a row, from the sample at or before the position
    int count;
    std::size_t offset;  ///< of the first row in `values`
    Shape shape;
  };

  void fillBuckets();
  [[nodiscard]] std::size_t nodeNear(double variance) const;
  [[nodiscard]] std::size_t rowLength(Node const& node) const;

  std::vector<Node> nodes;
  std::vector<std::uint16_t> nodeOfBucket;  ///< nearest to the lower end of each bucket of variances
  std::vector<double> values;
};

}  // namespace FullWaveform
