#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

/// Sampling interval that makes every time below exact, s.
constexpr double interval = 1.0 / 1073741824.0;

class DriverThresholds : public testing::TestWithParam<FWFModus> {
 protected:
  TemporaryDirectory directory;
  Driver driver{GetParam(), scannerOf({.samplingTime = interval}), directory.path(), "scan01.rxp", 200U};
};

using Thresholds = std::vector<unsigned short>;

Thresholds thresholdsOf(ShotMap const& shots) {
  Thresholds found;
  for (auto const& [time, shot] : shots) {
    for (WavePtr const& wave : shot.waves) {
      found.push_back(wave->noise);
    }
  }
  return found;
}

struct Echo {
  double time, amplitude, idx, std;
  bool operator==(Echo const&) const = default;
};

std::vector<Echo> echoesOf(ShotMap const& shots) {
  std::vector<Echo> found;
  for (auto const& [time, shot] : shots) {
    for (WavePtr const& wave : shot.waves) {
      for (Peak const& peak : wave->peaks) {
        found.push_back({peak.time, peak.amplitude, peak.idx, peak.std});
      }
    }
  }
  return found;
}

/// Both channels of two shots; the low-power channel (flag 1) has a baseline of 5, the other one of 60.
Block twoChannels() {
  Samples const high = waveformOf(40, 60, {{9, {150, 240, 150}}, {24, {90, 120, 90}}});
  return blockOf({{echoOf(200), 1.0, 1}, {high, 1.0, 0}, {echoOf(90), 2.0, 1}, {high, 2.0, 0}});
}

TEST_P(DriverThresholds, EachWaveformOfAShotHasItsOwn) {
  ShotMap const shots = twoChannels().run(driver, std::vector<int>{20, 70, 30, 95});
  EXPECT_EQ(thresholdsOf(shots), (Thresholds{20, 70, 30, 95}));
}

TEST_P(DriverThresholds, DecideWhichEchoesAWaveformHas) {
  // The second echo of the high channel reaches 120 counts.
  auto const echoes = [&](int high) {
    ShotMap const shots = twoChannels().run(driver, std::vector<int>{255, high, 255, 255});
    return shots.empty() ? 0U : shots.at(1.0).waves.back()->peaks.size();
  };
  EXPECT_EQ(echoes(255), 0U);
  // The decomposition wants heights above the threshold that exceed the threshold: 170, but not 50.
  EXPECT_EQ(echoes(70), GetParam() == FWFModus::ThreePoint ? 2U : 1U);
}

TEST_P(DriverThresholds, NegativeOnesAreEstimated) {
  // 18 samples of 5 and two above 10: too few for a line, so that the estimate is 0.
  ShotMap const shots = twoChannels().run(driver, std::vector<int>{-1, 70, 25, -7});
  ShotMap const estimated = twoChannels().run(driver, -1);
  Thresholds const of = thresholdsOf(estimated);
  EXPECT_EQ(thresholdsOf(shots), (Thresholds{of.at(0), 70, 25, of.at(3)}));
  EXPECT_EQ(of.at(0), 0U);
}

TEST_P(DriverThresholds, EqualOnesGiveTheResultOfOneForAll) {
  Block const block = twoChannels();
  for (int const noise : {-1, 0, 20, 70}) {
    auto const expected = echoesOf(block.run(driver, noise));
    EXPECT_EQ(echoesOf(block.run(driver, std::vector<int>(4, noise))), expected) << noise;
    EXPECT_FALSE(expected.empty()) << noise;
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, DriverThresholds,
                         testing::Values(FWFModus::ThreePoint, FWFModus::Decomposition));

}  // namespace
}  // namespace FullWaveform
