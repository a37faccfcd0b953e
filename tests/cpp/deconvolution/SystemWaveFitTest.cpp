#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/deconvolution/SystemWaveFit.h>

#include "deconvolution/PulseWaveforms.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

constexpr double baseline = 10.0;  // counts

/// A waveform of pulses as long as the system wave, 11 samples; `waveformWithEchoes` has their tails, too.
Samples waveformOf(std::vector<std::pair<double, double>> const& startsAndCounts) {
  Samples samples(70);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    double value = baseline;
    for (auto const& [start, counts] : startsAndCounts) {
      double const t = static_cast<double>(i) - start;
      value += t > 11.0 ? 0.0 : counts * pulse(t);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

struct Found {
  std::vector<double> positions;
  std::vector<double> heights;
};

Found refined(Samples const& samples, std::vector<double> positions) {
  std::vector<double> heights(positions.size());
  SystemWaveFit(skewedScanner()).refine(samples, baseline, positions, heights);
  return {positions, heights};
}

TEST(SystemWaveFit, APositionOfTheGridBecomesTheTrueOne) {
  for (double const start : {15.0, 15.13, 15.5, 15.87}) {
    SCOPED_TRACE(start);
    Samples const samples = waveformOf({{start, 2000.0}});
    // Grid positions to either side, and the accuracy that rounding to counts allows.
    for (double const off : {-0.1, 0.3}) {
      Found const found = refined(samples, {positionOf(start) + off});
      EXPECT_NEAR(found.positions[0], positionOf(start), 2e-3);
      EXPECT_NEAR(found.heights[0], 2000.0, 4.0);
    }
  }
}

TEST(SystemWaveFit, EchoesOfRlPlanesLoseTheirGrid) {
  Samples const samples = waveformOf({{15.17, 800.0}, {30.42, 350.0}});
  ScannerDevice const scanner = skewedScanner();
  WavePtr const wave = waveOf(samples, scanner);
  RL_Planes<unsigned short, ZeroCrossing>(scanner, 70).apply(samples.data(), wave);
  ASSERT_GE(wave->peaks.size(), 2U);
  std::vector<double> positions;
  for (Peak const& peak : wave->peaks) {
    positions.push_back(peak.idx);
  }
  Found const found = refined(samples, positions);
  auto const nearest = [&](double position) {
    std::size_t best = 0;
    for (std::size_t k = 0; k < found.positions.size(); ++k) {
      if (std::abs(found.positions[k] - position) < std::abs(found.positions[best] - position)) {
        best = k;
      }
    }
    return best;
  };
  EXPECT_NEAR(found.positions[nearest(positionOf(15.17))], positionOf(15.17), 0.01);
  EXPECT_NEAR(found.positions[nearest(positionOf(30.42))], positionOf(30.42), 0.01);
  EXPECT_NEAR(found.heights[nearest(positionOf(15.17))], 800.0, 8.0);
  EXPECT_NEAR(found.heights[nearest(positionOf(30.42))], 350.0, 8.0);
}

TEST(SystemWaveFit, EchoesThatOverlapAreFittedTogether) {
  Samples const samples = waveformOf({{20.3, 1500.0}, {25.6, 900.0}});
  Found const found = refined(samples, {positionOf(20.4), positionOf(25.4)});
  EXPECT_NEAR(found.positions[0], positionOf(20.3), 0.01);
  EXPECT_NEAR(found.positions[1], positionOf(25.6), 0.01);
  EXPECT_NEAR(found.heights[0], 1500.0, 10.0);
  EXPECT_NEAR(found.heights[1], 900.0, 10.0);
}

TEST(SystemWaveFit, TheHeightIsThatOfTheWaveformWhereTheEchoIsWiderThanTheSystemWave) {
  // Three pulses in a row make one echo, wider than a pulse.
  Samples const samples = waveformOf({{19.5, 500.0}, {20.5, 600.0}, {21.5, 500.0}});
  unsigned short const highest = *std::max_element(samples.begin(), samples.end());
  Found const found = refined(samples, {positionOf(20.4)});
  EXPECT_NEAR(found.heights[0], highest - baseline, 0.02 * highest);
}

TEST(SystemWaveFit, AnEchoFurtherThanASampleAwayStaysWhereItIs) {
  Samples const samples = waveformOf({{20.0, 1500.0}});
  EXPECT_EQ(refined(samples, {positionOf(21.8)}).positions[0], positionOf(21.8));
}

TEST(SystemWaveFit, AnEchoWithoutSignalStaysAndHasTheHeightOfTheWaveform) {
  Samples const samples(70, 7);
  Found const found = refined(samples, {30.0});
  EXPECT_EQ(found.positions[0], 30.0);
  EXPECT_NEAR(found.heights[0], -3.0, 1e-9);
}

TEST(SystemWaveFit, EchoesOutsideTheWaveformAndWaveformsWithoutSamplesAreHarmless) {
  Samples const samples = waveformOf({{20.0, 1500.0}});
  Found const found = refined(samples, {-50.0, 500.0, positionOf(20.2)});
  EXPECT_EQ(found.positions[0], -50.0);
  EXPECT_EQ(found.positions[1], 500.0);
  EXPECT_NEAR(found.positions[2], positionOf(20.0), 0.01);
  EXPECT_EQ(refined({}, {3.0}).positions[0], 3.0);
}

TEST(SystemWaveFit, WithoutASystemWaveItThrows) {
  EXPECT_THROW(SystemWaveFit{ScannerDevice()}, std::invalid_argument);
}

}  // namespace
}  // namespace FullWaveform
