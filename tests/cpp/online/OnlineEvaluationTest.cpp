#include <fullwaveform/online/OnlineEvaluation.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"

namespace FullWaveform {
namespace {

using Evaluation = OnlineEvaluation<unsigned short>;
using Shots = std::map<double, WavePtr>;
using Messages = std::vector<std::string>;
using Values = std::vector<double>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// 2 m/s and an unambiguous range of 16 m; all times are exact.
ScannerDevice slowScanner() {
  ScannerDevice scanner;
  scanner.group_velocity = 2.0;
  scanner.unambiguous_range = 16.0;
  return scanner;
}

struct Echoes {
  std::vector<double> shotTimes;
  std::vector<double> ranges;
  std::vector<float> amplitudes;
  std::vector<unsigned char> flags;
  std::vector<float> reflectances;
};

/// High-power echoes; their amplitudes are their numbers.
Echoes echoesOf(std::vector<double> shotTimes, std::vector<double> ranges) {
  std::size_t const count = shotTimes.size();
  Echoes echoes{std::move(shotTimes), std::move(ranges), std::vector<float>(count),
                std::vector<unsigned char>(count, 0), std::vector<float>(count, -3.0F)};
  for (std::size_t i = 0; i < count; ++i) {
    echoes.amplitudes[i] = static_cast<float>(i);
  }
  return echoes;
}

Shots apply(Evaluation const& evaluation, Echoes const& echoes) {
  return evaluation.apply(
      Kestra::MultiArray<1, double>(echoes.shotTimes), Kestra::MultiArray<1, double>(echoes.ranges),
      Kestra::MultiArray<1, float>(echoes.amplitudes), Kestra::MultiArray<1, unsigned char>(echoes.flags),
      Kestra::MultiArray<1, float>(echoes.reflectances));
}

Shots apply(Echoes const& echoes) {
  Evaluation evaluation(slowScanner());
  return apply(evaluation, echoes);
}

/// Numbers of the echoes of a shot.
Values numbers(WavePtr const& wave) {
  Values found;
  for (Peak const& peak : wave->peaks) {
    found.push_back(static_cast<double>(peak.amplitude));
  }
  return found;
}

Values times(WavePtr const& wave) {
  Values found;
  for (Peak const& peak : wave->peaks) {
    found.push_back(peak.time);
  }
  return found;
}

Values shotTimes(Shots const& shots) {
  Values found;
  for (auto const& [time, wave] : shots) {
    found.push_back(time);
  }
  return found;
}

TEST(OnlineEvaluation, EmptyArraysGiveNoShots) {
  Testing::ConsoleCapture const console;
  EXPECT_TRUE(apply({}).empty());
  EXPECT_TRUE(console.messages().empty());
}

TEST(OnlineEvaluation, EchoHasTheGivenValues) {
  Shots const shots = apply({{100.5}, {7.0}, {12.25F}, {1}, {-4.5F}});
  ASSERT_EQ(shots.size(), 1U);
  WavePtr const& wave = shots.at(100.5);
  EXPECT_TRUE(wave->isLowPower);
  EXPECT_EQ(wave->shotTime, 100.5);
  EXPECT_EQ(wave->sblTime, 0.0);
  EXPECT_TRUE(wave->online);
  EXPECT_TRUE(wave->isOnline());
  EXPECT_EQ(wave->length, 0U);
  ASSERT_EQ(wave->size(), 1U);
  Peak const& peak = wave->peaks.front();
  EXPECT_EQ(peak.amplitude, 12.25F);
  EXPECT_EQ(peak.idx, 0.0);
  EXPECT_EQ(peak.time, 7.0);  // two-way
  EXPECT_EQ(peak.type, ONLINE_OWP);
  EXPECT_EQ(peak.quality, GOOD);
  EXPECT_EQ(peak.std, 0.0);
  EXPECT_EQ(peak.classification, 0);
  EXPECT_EQ(peak.reflectance, -4.5F);
}

TEST(OnlineEvaluation, TimeIsTheTwoWayTravelTime) {
  ScannerDevice scanner;
  scanner.group_velocity = 3e8;
  scanner.unambiguous_range = 600.0;
  Evaluation evaluation(scanner);
  EXPECT_DOUBLE_EQ(apply(evaluation, echoesOf({1.0}, {150.0})).at(1.0)->peaks.front().time, 1e-6);
}

TEST(OnlineEvaluation, EchoesOfOneShotTimeAreOneShot) {
  Shots const shots = apply(echoesOf({5.0, 3.0, 5.0}, {1.0, 2.0, 3.0}));
  EXPECT_EQ(shotTimes(shots), (Values{3.0, 5.0}));
  EXPECT_EQ(numbers(shots.at(3.0)), (Values{1.0}));
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{0.0, 2.0}));
}

TEST(OnlineEvaluation, TimesThatDifferInTheLastBitAreTwoShots) {
  double const next = std::nextafter(5.0, 6.0);
  EXPECT_EQ(shotTimes(apply(echoesOf({next, 5.0}, {1.0, 2.0}))), (Values{5.0, next}));
}

TEST(OnlineEvaluation, EchoesAreSortedByTravelTime) {
  Shots const shots = apply(echoesOf({5.0, 5.0, 5.0, 5.0}, {3.0, 1.0, 4.0, 2.0}));
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{1.0, 3.0, 0.0, 2.0}));
  EXPECT_EQ(times(shots.at(5.0)), (Values{1.0, 2.0, 3.0, 4.0}));
}

TEST(OnlineEvaluation, EqualTravelTimesKeepTheOrderOfArrival) {
  // Enough echoes that std::sort does more than insertion sort: odd ones at 1 m, even ones at 2 m.
  std::vector<double> ranges;
  Values expected;
  for (int i = 0; i < 100; ++i) {
    ranges.push_back(i % 2 == 1 ? 1.0 : 2.0);
    expected.push_back(i < 50 ? 2 * i + 1 : 2 * (i - 50));
  }
  EXPECT_EQ(numbers(apply(echoesOf(std::vector<double>(100, 5.0), ranges)).at(5.0)), expected);
}

TEST(OnlineEvaluation, ShotHasTheFlagOfItsNearestEcho) {
  Echoes echoes = echoesOf({5.0, 5.0, 7.0, 7.0, 9.0}, {3.0, 1.0, 1.0, 3.0, 1.0});
  echoes.flags = {0, 1, 0, 1, 2};
  Shots const shots = apply(echoes);
  EXPECT_TRUE(shots.at(5.0)->isLowPower);
  EXPECT_FALSE(shots.at(7.0)->isLowPower);
  EXPECT_FALSE(shots.at(9.0)->isLowPower);  // only 1 means low power
}

TEST(OnlineEvaluation, EchoesHalfAnUnambiguousRangeApartStayInTheirShot) {
  Shots const shots = apply(echoesOf({5.0, 5.0, 5.0}, {1.0, 9.0, 25.0}));
  EXPECT_EQ(shotTimes(shots), (Values{5.0}));
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{0.0, 1.0, 2.0}));
}

TEST(OnlineEvaluation, ScannerIsCopied) {
  ScannerDevice scanner = slowScanner();
  Evaluation evaluation(scanner);
  scanner.group_velocity = 4.0;
  EXPECT_EQ(evaluation.scanner.group_velocity, 2.0);
  evaluation.scanner.group_velocity = 1.0;
  EXPECT_EQ(times(apply(evaluation, echoesOf({5.0}, {3.0})).at(5.0)), (Values{6.0}));
}

TEST(OnlineEvaluation, GroupVelocityOfZeroGivesInfiniteTimes) {
  Evaluation evaluation{ScannerDevice()};
  Shots const shots = apply(evaluation, echoesOf({5.0, 5.0, 5.0}, {0.0, 2.0, 1.0}));
  // The time of 0 m is 0/0, NaN, and comes last; infinite times keep their order.
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{1.0, 2.0, 0.0}));
  Values const found = times(shots.at(5.0));
  EXPECT_EQ(found[0], infinity);
  EXPECT_EQ(found[1], infinity);
  EXPECT_TRUE(std::isnan(found[2]));
}

TEST(OnlineEvaluation, NaNRangesComeLast) {
  Shots const shots = apply(echoesOf({5.0, 5.0, 5.0, 5.0}, {nan, 2.0, nan, 1.0}));
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{3.0, 1.0, 0.0, 2.0}));
}

TEST(OnlineEvaluation, EchoesWithNaNShotTimeAreSkipped) {
  Testing::ConsoleCapture const console;
  Shots const shots = apply(echoesOf({nan, 5.0, nan, 3.0}, {1.0, 2.0, 3.0, 4.0}));
  EXPECT_EQ(shotTimes(shots), (Values{3.0, 5.0}));
  EXPECT_EQ(numbers(shots.at(5.0)), (Values{1.0}));
  EXPECT_EQ(console.messages(), (Messages{"OnlineEvaluation::apply: skipped echoes: 2 (NaN shot time, or a "
                                          "missing array value)"}));
}

TEST(OnlineEvaluation, EchoesAfterTheEndOfTheShortestArrayAreSkipped) {
  for (int shortened = 0; shortened < 5; ++shortened) {
    Echoes echoes = echoesOf({5.0, 3.0, 5.0}, {1.0, 2.0, 3.0});
    echoes.shotTimes.resize(shortened == 0 ? 1 : 3);
    echoes.ranges.resize(shortened == 1 ? 1 : 3);
    echoes.amplitudes.resize(shortened == 2 ? 1 : 3);
    echoes.flags.resize(shortened == 3 ? 1 : 3);
    echoes.reflectances.resize(shortened == 4 ? 1 : 3);
    Testing::ConsoleCapture const console;
    Shots const shots = apply(echoes);
    EXPECT_EQ(shotTimes(shots), (Values{5.0}));
    EXPECT_EQ(numbers(shots.at(5.0)), (Values{0.0}));
    EXPECT_EQ(console.messages(), (Messages{"OnlineEvaluation::apply: skipped echoes: 2 (NaN shot time, or a "
                                            "missing array value)"}));
  }
}

/// Reference implementation: searches all echoes for each shot time.
struct ReferenceShots {
  explicit ReferenceShots(Echoes const& echoes) {
    for (double const time : std::set<double>(echoes.shotTimes.begin(), echoes.shotTimes.end())) {
      std::vector<std::size_t> echoesOfShot;
      for (std::size_t i = 0; i < echoes.shotTimes.size(); ++i) {
        if (echoes.shotTimes[i] == time) {
          echoesOfShot.push_back(i);
        }
      }
      std::stable_sort(echoesOfShot.begin(), echoesOfShot.end(),
                       [&](std::size_t a, std::size_t b) { return echoes.ranges[a] < echoes.ranges[b]; });
      for (std::size_t const i : echoesOfShot) {
        shots[time].push_back(static_cast<double>(i));
      }
      flags[time] = echoes.flags[echoesOfShot[0]];
    }
  }

  std::map<double, Values> shots;  // numbers of the echoes
  std::map<double, int> flags;
};

TEST(OnlineEvaluation, RandomEchoesGiveTheShotsOfTheReference) {
  std::mt19937 rng(3);
  auto const below = [&rng](int count) { return std::uniform_int_distribution<int>(0, count - 1)(rng); };
  Evaluation const evaluation(slowScanner());
  for (int number = 0; number < 300; ++number) {
    int const shotCount = 1 + below(20);
    Echoes echoes;
    for (int i = below(200); i >= 0; --i) {
      echoes.shotTimes.push_back(100.0 + below(shotCount));
      echoes.ranges.push_back(0.25 * below(100));  // equal ones occur
      echoes.amplitudes.push_back(static_cast<float>(echoes.amplitudes.size()));
      echoes.flags.push_back(static_cast<unsigned char>(below(3)));
      echoes.reflectances.push_back(0.0F);
    }
    ReferenceShots const expected(echoes);
    Shots const shots = apply(evaluation, echoes);
    ASSERT_EQ(shots.size(), expected.shots.size());
    for (auto const& [time, wave] : shots) {
      EXPECT_EQ(numbers(wave), expected.shots.at(time)) << number;
      EXPECT_EQ(wave->isLowPower, expected.flags.at(time) == 1) << number;
    }
  }
}

TEST(OnlineEvaluation, ShotsOutliveTheEvaluation) {
  Shots shots;
  {
    Evaluation evaluation(slowScanner());
    shots = apply(evaluation, echoesOf({5.0, 5.0}, {1.0, 2.0}));
  }
  EXPECT_EQ(shots.at(5.0)->size(), 2U);
  EXPECT_EQ(shots.at(5.0)->record().strongCount(), 1U);
}

}  // namespace
}  // namespace FullWaveform
