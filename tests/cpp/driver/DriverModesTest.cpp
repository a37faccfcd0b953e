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

constexpr unsigned short noise = 20;  // counts, and the baseline of the records
constexpr double centre = 30.3;       // samples

/// Sixty samples with a Gaussian of two samples' width whose largest sample is `top`.
Samples pulse(unsigned short top) {
  Samples samples(60);
  double const height = (top - noise) / std::exp(-0.5 * (30.0 - centre) * (30.0 - centre) / 4.0);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    double const distance = static_cast<double>(i) - centre;
    samples[i] =
        static_cast<unsigned short>(std::lround(noise + height * std::exp(-0.5 * distance * distance / 4.0)));
  }
  return samples;
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

TEST_P(HybridRule, DecidesByStrengthAndChannel) {
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

TEST_F(DriverModes, MessageSaysWhyTheDeconvolutionCannotRun) {
  for (std::uint32_t modus = 0; modus < 5; ++modus) {
    bool const deconvolves = modus == 2 || modus == 3;
    EXPECT_EQ(driverOf(modus, ScannerDevice()).message, deconvolves ? " RL_Planes: have no expsum_a/b" : "")
        << modus;
    EXPECT_EQ(driverOf(modus, deconvolvingScanner()).message, "") << modus;
  }
}

TEST_F(DriverModes, WithoutPlanesTheWaveformsStayEmptyAndOneMessageCountsThem) {
  Driver driver = driverOf(2, ScannerDevice());
  ConsoleCapture console;
  ShotMap const shots = blockOf({{pulse(300), 1.0, 1}, {pulse(400), 2.0, 1}}).run(driver, noise);
  ASSERT_EQ(shots.size(), 2U);
  for (auto const& [time, shot] : shots) {
    EXPECT_TRUE(shot.waves.at(0)->peaks.empty()) << time;
  }
  EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, 2U);
  ASSERT_EQ(console.messages().size(), 1U);
  EXPECT_NE(console.messages().front().find(" 2 waveforms"), std::string::npos);
}

TEST_F(DriverModes, HybridDecomposesWithoutPlanes) {
  Driver driver = driverOf(3, ScannerDevice());
  EXPECT_FALSE(echoesOf(driver, 300, 0).empty());
  EXPECT_EQ(driver.lastBlock().tooLongToDeconvolve, 0U);
}

TEST_F(DriverModes, AWaveformBeyondTheLadderStaysEmpty) {
  ConsoleCapture console;
  Samples wide(60, 300);  // above the noise from end to end: a range of 58 samples, for the third plane
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
