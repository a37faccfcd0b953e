#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include <nanobind/ndarray.h>

#include <fullwaveform/pulsefit/EchoUncertainty.h>

#include "EchoRows.h"
#include "NumpyColumn.h"

/// Waveforms of a block in which echoes were found, and the noise of their samples.
class FittedRows {
 public:
  using Covariances =
      nanobind::ndarray<double const, nanobind::ndim<2>, nanobind::c_contig, nanobind::device::cpu>;

  /// @param noiseOfRows         index of the noise of each row in the three tables that follow it
  /// @param limits              counts of the input from which on samples are clipped
  /// @param covariances         counts of the input squared, of two samples 0, 1, ... apart
  /// @param baselineDeviations  counts of the input
  /// @param removed             counts of the input by which the samples of each row are lower
  /// @param scales              factor of the rest
  FittedRows(EchoRows::Samples samples, InputColumn<std::uint16_t> counts, InputColumn<double> thresholds,
             InputColumn<std::int64_t> noiseOfRows, InputColumn<double> limits, Covariances covariances,
             InputColumn<double> baselineDeviations, InputColumn<std::int64_t> removed,
             InputColumn<std::int64_t> scales)
      : samples(std::move(samples)),
        counts(std::move(counts)),
        thresholds(std::move(thresholds)),
        noiseOfRows(std::move(noiseOfRows)),
        limits(std::move(limits)),
        covariances(std::move(covariances)),
        baselineDeviations(std::move(baselineDeviations)),
        removed(std::move(removed)),
        scales(std::move(scales)) {
    check();
  }

  [[nodiscard]] std::size_t size() const { return counts.shape(0); }

  [[nodiscard]] FullWaveform::FittedSamples waveformOf(std::int64_t row) const {
    double const limit = limits.data()[noiseOfRows.data()[row]];
    double const lowered = limit - static_cast<double>(removed.data()[row]);
    return {{samples.data() + row * samples.stride(0), counts.data()[row]},
            thresholds.data()[row],
            lowered * static_cast<double>(scales.data()[row])};
  }

  /// Begins to load the samples at a position, which need not be in the row.
  void prefetch(std::int64_t row, double position) const {
    auto const sample =
        position >= 0.0 && position < counts.data()[row] ? static_cast<std::int64_t>(position) : 0;
    __builtin_prefetch(samples.data() + row * samples.stride(0) + sample);
  }

  /// The noise of a row in counts of its samples.
  class Noise {
   public:
    Noise(FittedRows const& rows, std::int64_t row) : lags(rows.covariances.shape(1)) {
      std::int64_t const index = rows.noiseOfRows.data()[row];
      auto const scale = static_cast<double>(rows.scales.data()[row]);
      double const* const known = rows.covariances.data() + static_cast<std::size_t>(index) * lags;
      for (std::size_t lag = 0; lag < lags; ++lag) {
        covariance[lag] = known[lag] * (scale * scale);
      }
      baselineDeviation = rows.baselineDeviations.data()[index] * scale;
    }

    /// Valid as long as this object.
    [[nodiscard]] FullWaveform::SampleNoise view() const {
      return {std::span(covariance).first(lags), baselineDeviation};
    }

   private:
    std::size_t lags;
    std::array<double, FullWaveform::maxNoiseLag + 1> covariance{};
    double baselineDeviation;
  };

 private:
  void check() const {
    std::size_t const lags = covariances.shape(1);
    if (lags == 0 || lags > FullWaveform::maxNoiseLag + 1) {
      throw std::invalid_argument("covariances have " + std::to_string(lags) + " lags; expected 1 to " +
                                  std::to_string(FullWaveform::maxNoiseLag + 1));
    }
    std::size_t const tables = limits.shape(0);
    if (covariances.shape(0) != tables || baselineDeviations.shape(0) != tables) {
      throw std::invalid_argument("limits, covariances and baseline deviations differ in length");
    }
    for (std::size_t const length :
         {samples.shape(0), thresholds.shape(0), noiseOfRows.shape(0), removed.shape(0), scales.shape(0)}) {
      if (length != size()) {
        throw std::invalid_argument("an array of " + std::to_string(length) + " rows; expected " +
                                    std::to_string(size()));
      }
    }
    for (std::size_t row = 0; row < size(); ++row) {
      std::int64_t const index = noiseOfRows.data()[row];
      if (index < 0 || static_cast<std::size_t>(index) >= tables || counts.data()[row] > samples.shape(1)) {
        throw std::invalid_argument("row " + std::to_string(row) + " has noise " + std::to_string(index) +
                                    " and " + std::to_string(counts.data()[row]) +
                                    " samples; expected less than " + std::to_string(tables) +
                                    " and at most " + std::to_string(samples.shape(1)));
      }
    }
  }

  EchoRows::Samples samples;
  InputColumn<std::uint16_t> counts;
  InputColumn<double> thresholds;
  InputColumn<std::int64_t> noiseOfRows;
  InputColumn<double> limits;
  Covariances covariances;
  InputColumn<double> baselineDeviations;
  InputColumn<std::int64_t> removed;
  InputColumn<std::int64_t> scales;
};
