#include <fullwaveform/pulsefit/SystemWaveUncertainty.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/SystemWaveFit.h>

#include "deconvolution/PulseWaveforms.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;
using Values = std::vector<double>;

struct Found {
  Values positions;
  Values heights;
};

/// Two pulses that overlap, 20000 and 9000 counts high, with one sample changed.
Found fitted(std::size_t changed, double by) {
  Samples samples(70);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    double const t = static_cast<double>(i);
    double value = 5000.0 + (i == changed ? by : 0.0);
    value += t - 20.3 > 11.0 ? 0.0 : 20000.0 * pulse(t - 20.3);
    value += t - 26.8 > 11.0 ? 0.0 : 9000.0 * pulse(t - 26.8);
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  Found found{{positionOf(20.3), positionOf(26.8)}, Values(2)};
  SystemWaveFit(skewedScanner()).refine(samples, 5000.0, found.positions, found.heights);
  return found;
}

std::vector<EchoUncertainty> uncertaintiesOf(Values const& positions, Values const& heights,
                                             Values const& covariance, double baselineDeviation = 0.0) {
  Samples const samples(70, 10);
  std::vector<EchoUncertainty> result(positions.size());
  SystemWaveUncertainty(skewedScanner())
      .apply({samples}, {covariance, baselineDeviation}, positions, heights, result);
  return result;
}

TEST(SystemWaveUncertainty, ItIsTheResponseOfTheFitToEachSample) {
  constexpr double change = 300.0;  // counts
  std::vector<Found> responses;
  for (std::size_t i = 0; i < 70; ++i) {
    Found response = fitted(i, change);
    Found const less = fitted(i, -change);
    for (std::size_t k = 0; k < 2; ++k) {
      response.positions[k] = (response.positions[k] - less.positions[k]) / (2.0 * change);
      response.heights[k] = (response.heights[k] - less.heights[k]) / (2.0 * change);
    }
    responses.push_back(response);
  }
  // Noise of 4 counts with a correlation of -0.3 of neighbours, and a baseline that is 2 counts wrong.
  auto const deviation = [&](Values Found::* values, std::size_t k) {
    double noise = 0.0;
    double baseline = 0.0;
    for (std::size_t i = 0; i < responses.size(); ++i) {
      double const here = (responses[i].*values)[k];
      noise += here * here - (i == 0 ? 0.0 : 0.6 * here * (responses[i - 1].*values)[k]);
      baseline += here;
    }
    return std::sqrt(16.0 * noise + 4.0 * baseline * baseline);
  };
  Found const plain = fitted(0, 0.0);
  auto const found = uncertaintiesOf(plain.positions, plain.heights, {16.0, -4.8}, 2.0);
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_NEAR(found[k].position, deviation(&Found::positions, k), 0.02 * found[k].position) << k;
    EXPECT_NEAR(found[k].amplitude, deviation(&Found::heights, k), 0.02 * found[k].amplitude) << k;
    EXPECT_TRUE(std::isnan(found[k].fwhm));
  }
}

TEST(SystemWaveUncertainty, WhatSamplesDoNotDetermineIsUnknown) {
  double const notANumber = std::numeric_limits<double>::quiet_NaN();
  auto const found =
      uncertaintiesOf({30.0, notANumber, 500.0, 50.0, 50.0}, {100.0, 100.0, 100.0, 90.0, 90.0}, {16.0});
  EXPECT_TRUE(std::isfinite(found[0].position));
  for (std::size_t k = 1; k < found.size(); ++k) {
    EXPECT_TRUE(std::isnan(found[k].position)) << k;
  }
  EXPECT_TRUE(std::isnan(uncertaintiesOf({30.0}, {0.0}, {16.0})[0].position));
}

TEST(SystemWaveUncertainty, ClippedSamplesLeaveThePositionOnly) {
  Samples samples(70, 10);
  samples[29] = 255;
  std::vector<EchoUncertainty> result(1);
  SystemWaveUncertainty kernel(skewedScanner());
  auto const run = [&](double limit) {
    kernel.apply({.samples = samples, .limit = limit}, {Values{16.0}, 0.0}, Values{30.0}, Values{100.0},
                 result);
    return result[0];
  };
  EchoUncertainty const all = run(256.0);
  EchoUncertainty const clipped = run(255.0);
  EXPECT_GT(clipped.position, all.position);
  EXPECT_TRUE(std::isfinite(all.amplitude));
  EXPECT_TRUE(std::isnan(clipped.amplitude));
}

TEST(SystemWaveUncertainty, AScannerWithoutSystemWaveIsRejected) {
  ScannerDevice const scanner;
  EXPECT_THROW(SystemWaveUncertainty{scanner}, std::invalid_argument);
}

}  // namespace
}  // namespace FullWaveform
