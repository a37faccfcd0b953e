// Drivers are created and destroyed while others work: planning and releasing transforms does not affect
// them.
#include <atomic>
#include <string>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "properties/RandomScans.h"
#include "support/ConsoleCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/Threads.h"

namespace FullWaveform {
namespace {

using namespace Testing;

Driver driverOf(int modus, std::filesystem::path const& directory) {
  return {static_cast<FWFModus>(modus), scannerWithSystemWave(), directory, "scan.las", maxWaveformLength};
}

TEST(DriverLifetimes, CreatingAndDestroyingDriversDoesNotAffectOthers) {
  constexpr int modes = 4;
  ConsoleCapture const console;
  TemporaryDirectory const directory;
  Block const block = blockOf(randomScan(31, 10));
  std::vector<std::map<double, std::string>> expected;
  for (int modus = 0; modus < modes; ++modus) {
    Driver single = driverOf(modus, directory.path());
    expected.push_back(bytesOf(block.run(single)));
  }
  std::size_t const before = Holdex::ChunkBase::memoryTotal();
  std::atomic<int> different{0};
  std::atomic<int> working{modes};
  // Threads 0 to 3 use one driver each; threads 4 and 5 create and destroy drivers until they have finished.
  onThreads(modes + 2, [&](int number) {
    if (number >= modes) {
      for (int round = 0; round < 3 || working > 0; ++round) {
        Driver const temporary = driverOf(round % modes, directory.path());
        different += temporary.message.empty() ? 0 : 1;
      }
      return;
    }
    {
      Driver driver = driverOf(number, directory.path());
      for (int round = 0; round < 5; ++round) {
        different += bytesOf(block.run(driver)) == expected[static_cast<std::size_t>(number)] ? 0 : 1;
      }
    }
    --working;
  });
  EXPECT_EQ(different, 0);
  EXPECT_EQ(Holdex::ChunkBase::memoryTotal(), before);
}

}  // namespace
}  // namespace FullWaveform
