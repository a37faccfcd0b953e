#include <fullwaveform/driver/ShotRules.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

constexpr std::size_t width = 9;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Waveforms of a block with the attributes of each.
class Block {
 public:
  void add(std::vector<unsigned short> const& samples, double shotTime, unsigned char flag = 1,
           double sblTime = 0.0) {
    counts.push_back(static_cast<unsigned short>(samples.size()));
    values.insert(values.end(), samples.begin(), samples.end());
    values.resize(counts.size() * width, 60000);
    shotTimes.push_back(shotTime);
    sblTimes.push_back(sblTime);
    flags.push_back(flag);
  }

  [[nodiscard]] SampleRows samples() const {
    return {values.data(), static_cast<std::ptrdiff_t>(width), counts};
  }
  [[nodiscard]] BlockReport report() const { return reportOfRows(samples(), shotTimes); }
  [[nodiscard]] std::vector<RowState> states() const { return report().rowStates; }

  [[nodiscard]] EchoRules rules(std::vector<std::int64_t> const& rows, std::vector<double> const& positions,
                                std::vector<double> const& amplitudes, ScannerDevice const& scanner) const {
    WorkMeter work;
    return rules(rows, positions, amplitudes, scanner, work);
  }

  [[nodiscard]] EchoRules rules(std::vector<std::int64_t> const& rows, std::vector<double> const& positions,
                                std::vector<double> const& amplitudes, ScannerDevice const& scanner,
                                WorkMeter& work) const {
    return applyEchoRules(samples(), shotTimes, sblTimes, flags, {rows, positions, amplitudes}, scanner,
                          work);
  }

 private:
  std::vector<unsigned short> values;
  std::vector<unsigned short> counts;
  std::vector<double> shotTimes;
  std::vector<double> sblTimes;
  std::vector<unsigned char> flags;
};

ScannerDevice scannerWithoutAfterPulse() {
  ScannerDevice scanner;
  scanner.sampling_time = 2.0;
  scanner.t_ref = 100.0;
  scanner.afterpulse_offset = 0;
  scanner.afterpulse_width = 1U << 31U;  // no position is in the window
  return scanner;
}

using States = std::vector<EchoState>;
constexpr EchoState kept = EchoState::Kept;
constexpr EchoState afterPulse = EchoState::AfterPulse;
constexpr EchoState inOtherChannel = EchoState::InOtherChannel;

TEST(ShotRules, EqualSumsOfEveryThirdSampleInAShotAreDuplicates) {
  Block block;
  block.add({1, 2, 3, 4}, 7.0);
  block.add({1, 9, 9, 4}, 7.0);     // samples 0 and 3 are equal
  block.add({4, 0, 0, 1, 0}, 7.0);  // so is their sum
  block.add({1, 2, 3, 4}, 8.0);     // another shot
  block.add({1, 2, 3, 5}, 7.0);
  EXPECT_EQ(block.states(), (std::vector{RowState::Kept, RowState::Duplicate, RowState::Duplicate,
                                         RowState::Kept, RowState::Kept}));
}

TEST(ShotRules, RowsWithoutSamplesOrTimeAreInvalid) {
  Block block;
  block.add({}, 7.0);
  block.add({1, 2, 3}, nan);
  block.add({1, 2, 3}, nan);
  block.add({0}, 7.0);
  EXPECT_EQ(block.states(),
            (std::vector{RowState::InvalidRow, RowState::InvalidRow, RowState::InvalidRow, RowState::Kept}));
}

TEST(ShotRules, HalfOfTheRowsBeingDuplicatesIsSuspicious) {
  Block block;
  block.add({1, 2, 3}, 7.0);
  block.add({}, 8.0);
  block.add({1, 2, 3}, 7.0);
  EXPECT_FALSE(block.report().statistics.isSuspicious());
  block.add({1, 2, 3}, 7.0);
  RunStatistics const statistics = block.report().statistics;
  EXPECT_TRUE(statistics.isSuspicious());
  EXPECT_EQ(statistics.numberOfWaves, 4);
  EXPECT_EQ(statistics.duplicates, 2U);
  EXPECT_EQ(statistics.signalTooLow, 0U);
  EXPECT_EQ(statistics.splitCounts[0], 3U);
}

TEST(ShotRules, TimesCountFromTheReferenceTimeOfTheScanner) {
  Block block;
  block.add({1, 2, 3}, 7.0, 1, 1000.0);
  EchoRules const rules = block.rules({0, 0}, {0.5, 1.5}, {10.0, 20.0}, scannerWithoutAfterPulse());
  EXPECT_EQ(rules.times, (std::vector{901.0, 903.0}));
  EXPECT_EQ(rules.states, (States{kept, kept}));
}

TEST(ShotRules, EchoesOfBothChannelsAreMerged) {
  Block block;
  block.add({1, 2, 3}, 7.0, 0);
  block.add({1, 2, 3}, 7.0, 1);
  block.add({1, 2, 3}, 8.0, 1);
  // The second echoes are 6 s apart, three sampling intervals; the first and third ones 5.9 s.
  EchoRules const rules =
      block.rules({0, 0, 0, 1, 1, 1, 2}, {0.0, 10.0, 30.0, 2.95, 13.0, 32.95, 0.0},
                  {500.0, 500.0, 500.0, 3000.0, 300.0, 3000.5, 300.0}, scannerWithoutAfterPulse());
  EXPECT_EQ(rules.states, (States{inOtherChannel, kept, kept, kept, kept, inOtherChannel, kept}));
}

TEST(ShotRules, EchoesThatTheTimesOfTheirWaveformsSeparateAreKept) {
  Block block;
  block.add({1, 2, 3}, 7.0, 0, 0.0);
  block.add({1, 2, 3}, 7.0, 1, 6.0);
  EchoRules const rules = block.rules({0, 1}, {1.0, 1.0}, {500.0, 300.0}, scannerWithoutAfterPulse());
  EXPECT_EQ(rules.states, (States{kept, kept}));
}

TEST(ShotRules, LaterWaveformsOfAShotMayBeApartInTheBlock) {
  Block block;
  block.add({1, 2, 3}, 8.0, 0);
  block.add({1, 2, 3}, 7.0, 0);
  block.add({1, 2, 3}, 8.0, 1);
  EchoRules const rules =
      block.rules({0, 1, 2}, {5.0, 5.0, 5.0}, {500.0, 500.0, 300.0}, scannerWithoutAfterPulse());
  EXPECT_EQ(rules.states, (States{inOtherChannel, kept, kept}));
}

TEST(ShotRules, EchoesInTheWindowOfAStrongWaveformAreAfterPulses) {
  ScannerDevice scanner = scannerWithoutAfterPulse();
  scanner.afterpulse_offset = 5;
  scanner.afterpulse_width = 2;
  Block block;
  block.add({1, 1, 800, 1}, 7.0);  // the window begins at 2 + 5 - 2
  block.add({1, 1, 799, 1}, 8.0);
  EchoRules const rules =
      block.rules({0, 0, 0, 0, 1}, {2.0, 4.99, 5.0, 5000.0, 5.0}, {800.0, 10.0, 10.0, 10.0, 10.0}, scanner);
  EXPECT_EQ(rules.states, (States{kept, kept, afterPulse, afterPulse, kept}));
}

TEST(ShotRules, AfterPulsesTakeNoPartInTheMerge) {
  ScannerDevice scanner = scannerWithoutAfterPulse();
  scanner.afterpulse_offset = 5;
  scanner.afterpulse_width = 2;
  Block block;
  block.add({1, 1, 3, 1}, 7.0, 0);
  block.add({1, 1, 900, 1}, 7.0, 1);
  EchoRules const rules = block.rules({0, 1}, {6.0, 6.0}, {500.0, 300.0}, scanner);
  EXPECT_EQ(rules.states, (States{kept, afterPulse}));
}

TEST(ShotRules, TheMergeOfALargeShotCanBeCancelled) {
  Block block;
  block.add({1, 2, 3}, 0.0, 0);
  block.add({1, 2, 4}, 0.0, 1);
  WorkMeter work;
  work.monitor = std::make_shared<RunMonitor>();
  work.monitor->cancel();
  EXPECT_THROW((void)block.rules({0, 1}, {1.0, 1.0}, {500.0, 300.0}, scannerWithoutAfterPulse(), work),
               Cancelled);
}

}  // namespace
}  // namespace FullWaveform
