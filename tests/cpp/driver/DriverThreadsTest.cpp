#include <atomic>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/ConsoleCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using namespace Testing;

constexpr int threads = 4;

/// Fifty shots with two channels each; the second channel of every fifth is below the threshold.
Block manyShots() {
  std::vector<Row> rows;
  for (int i = 0; i < 50; ++i) {
    auto const top = static_cast<unsigned short>(200 + 10 * i);
    rows.push_back({echoOf(top), static_cast<double>(i), 0});
    rows.push_back(
        {i % 5 == 0 ? noSignal() : echoOf(static_cast<unsigned short>(top / 2)), static_cast<double>(i), 1});
  }
  return blockOf(rows);
}

/// Report of every waveform of a map with its shot time.
std::string textOf(ShotMap const& shots) {
  std::string text;
  for (auto const& [time, shot] : shots) {
    for (WavePtr const& wave : shot.waves) {
      text += std::to_string(time) + wave->print();
    }
  }
  return text;
}

TEST(DriverThreads, OneDriverPerThreadGivesEqualResults) {
  TemporaryDirectory const directory;
  ScannerDevice const scanner = scannerOf();
  Block const block = manyShots();
  Driver alone(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
  std::string const expected = textOf(block.run(alone));
  EXPECT_NE(expected, "");
  std::atomic<int> different{0};
  onThreads(threads, [&](int) {
    Driver driver(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
    for (int round = 0; round < 5; ++round) {
      different += textOf(block.run(driver)) == expected ? 0 : 1;
    }
  });
  EXPECT_EQ(different, 0);
}

TEST(DriverThreads, DriversAreBuiltAndDestroyedOnManyThreads) {
  ScannerDevice const scanner = scannerOf();
  std::size_t const before = Holdex::ChunkBase::memoryTotal();
  onThreads(threads, [&](int number) {
    for (int round = 0; round < 20; ++round) {
      Driver const driver(static_cast<FWFModus>(number % 2), scanner, "out", "scan01.rxp", 200U);
      EXPECT_EQ(driver.message, "");
    }
  });
  EXPECT_EQ(Holdex::ChunkBase::memoryTotal(), before);
}

TEST(DriverThreads, ScannersAreReadFromTheSameGrids) {
  auto const own = scannerGrid();
  auto const fields = waveformGrid();
  std::size_t const before = Holdex::ChunkBase::memoryTotal();
  std::atomic<int> incomplete{0};
  onThreads(threads, [&](int) {
    for (int round = 0; round < 50; ++round) {
      ScannerDevice const scanner(*own, fields);
      incomplete += scanner() && scanner.expsum_a->size() == 2 ? 0 : 1;
    }
  });
  EXPECT_EQ(incomplete, 0);
  EXPECT_EQ(Holdex::ChunkBase::memoryTotal(), before);
}

TEST(DriverThreads, WaveformsAreSharedAndReleasedAcrossThreads) {
  TemporaryDirectory const directory;
  Driver driver(FWFModus::ThreePoint, scannerOf(), directory.path(), "scan01.rxp", 200U);
  ShotMap shots = manyShots().run(driver);
  WavePtr const first = shots.at(1.0).waves.at(0);
  std::vector<ShotMap> copies(threads, shots);
  shots.clear();
  std::atomic<std::size_t> waveforms{0};
  onThreads(threads, [&](int number) {
    ShotMap& copy = copies[static_cast<std::size_t>(number)];
    for (auto const& [time, shot] : copy) {
      waveforms += shot.waves.size();
    }
    copy.clear();
  });
  EXPECT_EQ(waveforms, static_cast<std::size_t>(threads * 90));
  EXPECT_EQ(first->record().strongCount(), 1U);
}

TEST(DriverThreads, MessagesOfDriversAreNotInterleaved) {
  ConsoleCapture const capture;
  TemporaryDirectory const directory;
  ScannerDevice const scanner = scannerOf();
  Block block = manyShots();
  block.counts[0] = 300;
  onThreads(threads, [&](int) {
    Driver driver(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
    block.run(driver);
  });
  auto const messages = capture.messages();
  ASSERT_EQ(messages.size(), static_cast<std::size_t>(threads));
  for (std::string const& message : messages) {
    EXPECT_EQ(message, messages[0]);
  }
}

TEST(DriverThreads, ThrowingSinkDoesNotChangeTheResult) {
  TemporaryDirectory const directory;
  ScannerDevice const scanner = scannerOf();
  Block block = manyShots();
  block.counts[0] = 300;
  std::string expected;
  {
    ConsoleCapture const capture;
    Driver alone(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
    expected = textOf(block.run(alone));
    ASSERT_EQ(capture.messages().size(), 1U);
  }
  constexpr int rounds = 5;
  int calls = 0;  // the console passes one message at a time
  Holdex::Console::Sink previous = Holdex::Console::setSink([&calls](std::string const&) {
    ++calls;
    throw std::runtime_error("no listener");
  });
  std::atomic<int> different{0};
  onThreads(threads, [&](int) {
    Driver driver(FWFModus::ThreePoint, scanner, directory.path(), "scan01.rxp", 200U);
    for (int round = 0; round < rounds; ++round) {
      different += textOf(block.run(driver)) == expected ? 0 : 1;
    }
  });
  Holdex::Console::setSink(std::move(previous));
  EXPECT_EQ(different, 0);
  EXPECT_EQ(calls, threads * rounds);
}

}  // namespace
}  // namespace FullWaveform
