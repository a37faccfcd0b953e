// Shifting the samples of a waveform shifts its echoes and does not change them otherwise.
#include <cmath>
#include <cstdint>
#include <ostream>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "properties/RandomScans.h"
#include "support/TemporaryDirectory.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

using namespace Testing;

/// Samples shifted later by `shift`; the last ones, without echoes, are dropped.
Samples shifted(Samples const& samples, std::size_t shift) {
  Samples later(shift, scanBaseline);
  later.insert(later.end(), samples.begin(), samples.end() - static_cast<std::ptrdiff_t>(shift));
  return later;
}

struct ShiftCase {
  std::uint32_t modus;
  double samples;  // tolerance of positions and widths
  double decibel;
};

std::ostream& operator<<(std::ostream& stream, ShiftCase const& shiftCase) {
  return stream << "mode " << shiftCase.modus;
}

class ShiftProperties : public testing::TestWithParam<ShiftCase> {
 protected:
  std::list<Peak> echoesOf(Samples const& samples, unsigned char flag) {
    ShotMap const shots = blockOf({{samples, 1.0, flag}}).run(driver, scanNoise);
    EXPECT_EQ(shots.size(), 1U);
    return shots.empty() ? std::list<Peak>() : shots.begin()->second.waves.at(0)->peaks;
  }

  TemporaryDirectory directory;
  Driver driver{static_cast<FWFModus>(GetParam().modus), scannerWithSystemWave(), directory.path(),
                "scan.las", maxWaveformLength};
};

void expectShifted(std::list<Peak> const& echoes, std::list<Peak> const& later, double shift,
                   ShiftCase const& tolerance) {
  ASSERT_EQ(echoes.size(), later.size());
  for (auto echo = echoes.begin(), other = later.begin(); echo != echoes.end(); ++echo, ++other) {
    EXPECT_NEAR(other->idx, echo->idx + shift, tolerance.samples);
    EXPECT_NEAR(other->std, echo->std, tolerance.samples);
    EXPECT_NEAR(other->amplitude, echo->amplitude, tolerance.decibel);
    EXPECT_EQ(other->type, echo->type);
  }
}

TEST_P(ShiftProperties, EchoesMoveWithTheSamples) {
  Rng rng(21);
  std::size_t echoes = 0;
  for (int i = 0; i < 60; ++i) {
    Samples const samples = gaussians(rng, 100, 40.0, 12.0, 900.0);
    auto const flag = static_cast<unsigned char>(i % 2);
    auto const shift = static_cast<std::size_t>(rng.between(1, 30));
    std::list<Peak> const found = echoesOf(samples, flag);
    echoes += found.size();
    SCOPED_TRACE(i);
    expectShifted(found, echoesOf(shifted(samples, shift), flag), static_cast<double>(shift), GetParam());
  }
  EXPECT_GT(echoes, 60U);
}

constexpr double sameDecibel = 0.0;

INSTANTIATE_TEST_SUITE_P(
    Modes, ShiftProperties,
    testing::Values(ShiftCase{0, Tolerance::shiftedSamples, sameDecibel},
                    ShiftCase{1, Tolerance::shiftedRefinedSamples, Tolerance::shiftedRefinedDecibel},
                    ShiftCase{2, Tolerance::shiftedSamples, sameDecibel},
                    ShiftCase{3, Tolerance::shiftedRefinedSamples, Tolerance::shiftedRefinedDecibel}));

}  // namespace
}  // namespace FullWaveform
