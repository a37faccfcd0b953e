#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/ConsoleCapture.h"
#include "support/SkewedScanner.h"
#include "support/TemporaryDirectory.h"

namespace FullWaveform {
namespace {

using namespace Testing;

constexpr unsigned short noise = 20;  // threshold and baseline, counts
constexpr double centre = 30.3;       // samples

struct Gaussian {
  double height;    // counts
  double position;  // samples
};

/// Sixty samples with Gaussians, two samples wide, on the baseline.
Samples gaussians(std::vector<Gaussian> const& echoes) {
  Samples samples(60);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    double value = noise;
    for (Gaussian const& echo : echoes) {
      double const distance = static_cast<double>(i) - echo.position;
      value += echo.height * std::exp(-0.5 * distance * distance / 4.0);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

/// Sixty samples with a Gaussian, two samples wide, whose largest sample is `top`.
Samples pulse(unsigned short top) {
  return gaussians({{(top - noise) / std::exp(-0.5 * (30.0 - centre) * (30.0 - centre) / 4.0), centre}});
}

/// A scanner with a system wave and without an after-pulse, whose amplitudes are dB above one count.
ScannerDevice deconvolvingScanner() {
  ScannerDevice scanner = skewedScanner();
  scanner.afterpulse_width = 1U << 31U;
  scanner.ampl_unit = 1.0;
  return scanner;
}

class DriverModes : public testing::Test {
 protected:
  Driver driverOf(std::uint32_t modus, ScannerDevice const& scanner, unsigned int longest = 100) {
    return {static_cast<FWFModus>(modus), scanner, directory.path(), "scan.rxp", longest};
  }
  /// Echoes of the only waveform of a block.
  std::list<Peak> echoesOf(Driver& driver, unsigned short top, unsigned char channelFlag) {
    ShotMap const shots = blockOf({{pulse(top), 1.0, channelFlag}}).run(driver, noise);
    EXPECT_EQ(shots.size(), 1U);
    return shots.empty() ? std::list<Peak>() : shots.begin()->second.waves.at(0)->peaks;
  }

  TemporaryDirectory directory;
};

struct HybridCase {
  unsigned short top;
  unsigned char channelFlag;
  bool deconvolves;
};

class HybridRule : public DriverModes, public testing::WithParamInterface<HybridCase> {};

TEST_P(HybridRule, DependsOnLargestSampleAndChannel) {
  Driver driver = driverOf(3, deconvolvingScanner());
  std::list<Peak> const echoes = echoesOf(driver, GetParam().top, GetParam().channelFlag);
  ASSERT_FALSE(echoes.empty());
  for (Peak const& echo : echoes) {
    EXPECT_EQ(echo.type == RICHARDSON_LUCY, GetParam().deconvolves) << convertType(echo.type);
  }
}

INSTANTIATE_TEST_SUITE_P(DriverModes, HybridRule,
                         testing::Values(HybridCase{1800, 1, true}, HybridCase{1801, 1, false},
                                         HybridCase{1800, 0, false}, HybridCase{300, 0, false},
                                         HybridCase{300, 1, true}, HybridCase{300, 2, true}));

TEST_F(DriverModes, EveryModeRunsItsMethod) {
  std::vector<TYPE> const expected{GAUSS_3POINTS, GAUSS_DECOMPOSITION_1, RICHARDSON_LUCY};
  for (std::uint32_t modus = 0; modus < expected.size(); ++modus) {
    Driver driver = driverOf(modus, deconvolvingScanner());
    std::list<Peak> const echoes = echoesOf(driver, 1000, 0);
    ASSERT_FALSE(echoes.empty()) << modus;
    EXPECT_EQ(echoes.front().type, expected[modus]) << modus;
  }
}

TEST_F(DriverModes, DecompositionRecoversTheGaussian) {
  Driver driver = driverOf(1, deconvolvingScanner());
  std::list<Peak> const echoes = echoesOf(driver, 1020, 0);
  ASSERT_EQ(echoes.size(), 1U);
  double const height = 1000.0 / std::exp(-0.5 * 0.09 / 4.0);
  // Rounding to counts moves a Gaussian of 1000 counts by a few 1e-4 samples.
  EXPECT_NEAR(echoes.front().idx, centre, 1e-3);
  EXPECT_NEAR(echoes.front().std, 2.0, 1e-3);
  EXPECT_NEAR(echoes.front().amplitude, 20.0 * std::log10(height), 0.01);
  EXPECT_NEAR(echoes.front().time, centre * 1e-9, 1e-12);
}

TEST_F(DriverModes, MessageGivesTheReasonWhyTheDeconvolutionCannotRun) {
  for (std::uint32_t modus = 0; modus < 5; ++modus) {
    bool const deconvolves = modus == 2 || modus == 3;
    EXPECT_EQ(driverOf(modus, ScannerDevice()).message, deconvolves ? " RL_Planes: have no expsum_a/b" : "")
        << modus;
    EXPECT_EQ(driverOf(modus, deconvolvingScanner()).message, "") << modus;
  }
}

TEST_F(DriverModes, WithoutPlanesTheWaveformsHaveNoEchoesAndOneMessageCountsThem) {
  Driver driver = driverOf(2, ScannerDevice());
  ConsoleCapture console;
  ShotMap const shots = blockOf({{pulse(300), 1.0, 1}, {pulse(400), 2.0, 1}}).run(driver, noise);
  ASSERT_EQ(shots.size(), 2U);
  for (auto const& [time, shot] : shots) {
    EXPECT_TRUE(shot.waves.at(0)->peaks.empty()) << time;
  }
  EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, 2U);
  EXPECT_EQ(console.messages(),
            (std::vector<std::string>{
                "PeakDetectionFamily::apply: waveforms not deconvolved: 2 (no system wave, or "
                "longer than the deconvolution was built for)"}));
}

TEST_F(DriverModes, PlanesAreBuiltInEveryMode) {
  for (std::uint32_t modus = 0; modus < 5; ++modus) {
    EXPECT_EQ(driverOf(modus, deconvolvingScanner(), 49).rlPlanes.planes.size(), 2U) << modus;
  }
}

// 20.7 counts on a baseline of 20: more than the threshold, less than one count more.
TEST_F(DriverModes, EchoLessThanOneCountAboveTheMinimumAmplitudeIsKept) {
  Driver driver = driverOf(1, deconvolvingScanner());
  EXPECT_EQ(blockOf({{gaussians({{20.7, 30.0}}), 1.0, 0}}).run(driver, noise).size(), 1U);
  ASSERT_EQ(driver.lastBlock().amplitudesInCounts.size(), 1U);
  EXPECT_NEAR(driver.lastBlock().amplitudesInCounts[0], 20.7, 0.3);  // samples are rounded to counts
  EXPECT_LT(driver.lastBlock().amplitudesInCounts[0], noise + 1);
}

// The weak echo at 25.5 is only a shoulder of the strong one at 30: the second loop finds it, after the
// first.
TEST_F(DriverModes, EchoesOfBothLoopsAreSortedByPosition) {
  Driver driver = driverOf(1, deconvolvingScanner());
  ShotMap const shots = blockOf({{gaussians({{800.0, 30.0}, {150.0, 25.5}}), 1.0, 1}}).run(driver, noise);
  std::list<Peak> const& echoes = shots.at(1.0).waves.at(0)->peaks;
  ASSERT_EQ(echoes.size(), 2U);
  EXPECT_EQ(echoes.front().type, GAUSS_DECOMPOSITION_2);
  EXPECT_EQ(echoes.back().type, GAUSS_DECOMPOSITION_1);
  EXPECT_LT(echoes.front().idx, echoes.back().idx);
}

TEST_F(DriverModes, HybridDecomposesWithoutPlanes) {
  Driver driver = driverOf(3, ScannerDevice());
  EXPECT_FALSE(echoesOf(driver, 300, 0).empty());
  EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, 0U);
}

TEST_F(DriverModes, WaveformLongerThanThePlanesHasNoEchoes) {
  ConsoleCapture console;
  Samples wide(60, 300);  // above the threshold from end to end: 58 samples, for the third plane
  wide.front() = 5;
  wide.at(30) = 400;
  for (unsigned int const longest : {49U, 50U}) {
    Driver driver = driverOf(2, deconvolvingScanner(), longest);
    ShotMap const shots = blockOf({{wide, 1.0, 1}}).run(driver, noise);
    EXPECT_EQ(shots.at(1.0).waves.at(0)->lengthCropped, 58U);
    EXPECT_EQ(shots.at(1.0).waves.at(0)->peaks.empty(), longest == 49);
    EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, longest == 49 ? 1U : 0U);
  }
}

TEST_F(DriverModes, WithoutASamplingIntervalEveryPlaneIsUnusable) {
  ScannerDevice scanner = deconvolvingScanner();
  scanner.sampling_time = 0.0;
  ConsoleCapture console;
  Driver driver = driverOf(2, scanner);
  EXPECT_TRUE(echoesOf(driver, 300, 1).empty());
  EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, 1U);
}

}  // namespace
}  // namespace FullWaveform
