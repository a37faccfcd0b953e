#include <chrono>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/ConsoleCapture.h"
#include "support/TestScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

constexpr std::uint64_t workLimit = 1'000'000'000;  // as the Python package sets it
constexpr std::size_t longest = 65535;
constexpr int estimated = -1;

/// Processor time that one waveform takes at most on a slow machine, also without optimisation.
constexpr double maxSeconds = 60.0;

double secondsSince(std::clock_t start) {
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

struct Content {
  std::string name;
  std::function<unsigned short(std::size_t)> sampleAt;
};

std::vector<Content> const& contents() {
  static std::vector<Content> const all{
      {"random", [rng = std::mt19937(1)](std::size_t) mutable { return static_cast<unsigned short>(rng()); }},
      {"random 8 bits",
       [rng = std::mt19937(2)](std::size_t) mutable { return static_cast<unsigned short>(rng() % 256); }},
      {"alternating", [](std::size_t i) { return static_cast<unsigned short>(1 + 200 * (i % 2)); }},
      {"ramp", [](std::size_t i) { return static_cast<unsigned short>(i); }},
      {"short ramps", [](std::size_t i) { return static_cast<unsigned short>(1 + 50 * (i % 10)); }},
      {"long ramps", [](std::size_t i) { return static_cast<unsigned short>(1 + 8 * (i % 400)); }},
      {"constant", [](std::size_t) { return static_cast<unsigned short>(500); }},
  };
  return all;
}

Samples samplesOf(Content const& content, std::size_t length) {
  auto sampleAt = content.sampleAt;
  Samples samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    samples[i] = sampleAt(i);
  }
  return samples;
}

/// So many maxima that their decomposition would take hours.
Samples manyMaxima() {
  return samplesOf(contents()[4], 20000);
}

Driver driverOf(FWFModus modus, unsigned int longestDeconvolution = 0) {
  return {modus, scannerOf(), "/dev/null", "scan01.rxp", longestDeconvolution};
}

TEST(DriverWork, AnyContentIsFinishedInEveryMode) {
  ConsoleCapture const capture;
  for (auto const modus :
       {FWFModus::ThreePoint, FWFModus::Decomposition, FWFModus::Deconvolution, FWFModus::Hybrid}) {
    Driver driver = driverOf(modus, 400);
    driver.work.limit = workLimit;
    for (Content const& content : contents()) {
      for (std::size_t const length : {std::size_t{400}, std::size_t{4000}, longest}) {
        Samples const samples = samplesOf(content, length);
        for (int const noise : {0, 150, estimated}) {
          for (auto const flag : {static_cast<unsigned char>(0), static_cast<unsigned char>(1)}) {
            Block const block = blockOf({{samples, 1.0, flag}});
            std::clock_t const start = std::clock();
            block.run(driver, noise);
            EXPECT_LT(secondsSince(start), maxSeconds)
                << content.name << ", " << length << " samples, threshold " << noise;
          }
        }
      }
    }
  }
}

TEST(DriverWork, TooComplexWaveformGetsNoEchoesAndIsCounted) {
  ConsoleCapture const capture;
  Driver driver = driverOf(FWFModus::Decomposition);
  driver.work.limit = workLimit;
  Block const block = blockOf({{echoOf(200), 1.0}, {manyMaxima(), 2.0}, {echoOf(300), 3.0}});
  ShotMap const shots = block.run(driver, 0);
  using enum RowState;
  EXPECT_EQ(driver.lastBlock().rowStates, (std::vector<RowState>{Kept, TooComplex, Kept}));
  EXPECT_EQ(driver.lastBlock().tooComplex, 1U);
  EXPECT_EQ(shots.at(1.0).waves[0]->peaks.size(), 1U);
  EXPECT_EQ(shots.at(2.0).waves[0]->peaks.size(), 0U);
  EXPECT_EQ(shots.at(3.0).waves[0]->peaks.size(), 1U);
  auto const messages = capture.messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_NE(messages[0].find("waveforms too complex: 1"), std::string::npos) << messages[0];
}

TEST(DriverWork, LimitDoesNotChangeEchoesWithinIt) {
  ConsoleCapture const capture;
  Samples const noise = samplesOf(contents()[1], 120);
  for (auto const modus : {FWFModus::Decomposition, FWFModus::Deconvolution}) {
    Driver unlimited = driverOf(modus, 400);
    Driver limited = driverOf(modus, 400);
    limited.work.limit = workLimit;
    Block const block = blockOf({{echoOf(200), 1.0, 1}, {noise, 2.0, 1}});
    ShotMap const expected = block.run(unlimited, 0);
    ShotMap const found = block.run(limited, 0);
    for (double const time : {1.0, 2.0}) {
      auto const& peaks = found.at(time).waves[0]->peaks;
      EXPECT_FALSE(peaks.empty());
      ASSERT_EQ(peaks.size(), expected.at(time).waves[0]->peaks.size());
      auto other = expected.at(time).waves[0]->peaks.begin();
      for (Peak const& peak : peaks) {
        EXPECT_EQ(peak.print(), (other++)->print());
      }
    }
  }
}

TEST(DriverWork, LimitAlsoAppliesToTheDeconvolution) {
  ConsoleCapture const capture;
  Driver driver = driverOf(FWFModus::Deconvolution, 400);
  driver.work.limit = 1000;
  blockOf({{echoOf(200), 1.0, 1}}).run(driver);
  EXPECT_EQ(driver.lastBlock().rowStates, std::vector<RowState>{RowState::TooComplex});
}

TEST(DriverWork, FinishedWaveformsAreCountedWhateverTheirState) {
  ConsoleCapture const capture;
  Driver driver = driverOf(FWFModus::ThreePoint);
  driver.work.monitor = std::make_shared<RunMonitor>();
  double const nan = std::numeric_limits<double>::quiet_NaN();
  blockOf({{echoOf(200), 1.0}, {noSignal(), 2.0}, {echoOf(200), nan}, {echoOf(200), 1.0}}).run(driver);
  EXPECT_EQ(driver.work.monitor->waveformsDone(), 4U);
}

TEST(DriverWork, CancellingFromAnotherThreadEndsALongFit) {
  Driver driver = driverOf(FWFModus::Decomposition);
  driver.work.monitor = std::make_shared<RunMonitor>();
  // Fits of this length take some seconds, and there are many.
  Samples const noise = samplesOf(contents()[1], 600);
  Block const block = blockOf(std::vector<Row>(1000, {noise, 1.0, 1}));
  Block differing = block;
  for (std::size_t i = 0; i < differing.shotTimes.size(); ++i) {
    differing.shotTimes[i] = static_cast<double>(i);
  }
  std::thread watcher([monitor = driver.work.monitor] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    monitor->cancel();
  });
  EXPECT_THROW(differing.run(driver, 0), Cancelled);
  watcher.join();
  EXPECT_THROW(blockOf({{echoOf(200), 1.0}}).run(driver), Cancelled);
  driver.work.monitor = nullptr;
  EXPECT_EQ(blockOf({{echoOf(200), 1.0}}).run(driver).at(1.0).waves[0]->peaks.size(), 1U);
}

TEST(DriverWork, CancellingEndsTheMergingOfManyWaveforms) {
  Driver driver = driverOf(FWFModus::ThreePoint);
  driver.work.monitor = std::make_shared<RunMonitor>();
  driver.work.poll = [monitor = driver.work.monitor] { monitor->cancel(); };
  // One shot: every high-power waveform is merged with every low-power one.
  std::vector<Row> rows;
  for (unsigned short i = 0; i < 2000; ++i) {
    rows.push_back(
        {echoOf(static_cast<unsigned short>(200 + i)), 1.0, static_cast<unsigned char>(i / 2 % 2)});
  }
  EXPECT_THROW(blockOf(rows).run(driver), Cancelled);
}

}  // namespace
}  // namespace FullWaveform
