// Drivers take no lock while they process a block, so that threads do not wait for each other.
#include <dlfcn.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "properties/RandomScans.h"
#include "support/TemporaryDirectory.h"

namespace {

thread_local std::size_t locksTaken = 0;

}  // namespace

/// Replaces the system's function, which std::mutex calls too, and counts the calls.
extern "C" [[gnu::visibility("default")]] int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  using Lock = int (*)(pthread_mutex_t*);
  static Lock const lock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  ++locksTaken;
  return lock(mutex);
}

namespace FullWaveform {
namespace {

using namespace Testing;

class DriverLocks : public testing::TestWithParam<std::uint32_t> {};

TEST_P(DriverLocks, OnlyPlanningTakesLocks) {
  TemporaryDirectory const directory;
  std::vector<Row> rows;
  for (int i = 0; i < 50; ++i) {
    Rng rng(static_cast<std::uint32_t>(i));
    rows.push_back({gaussians(rng, 90, 40.0, 30.0), 1.0 + i / 2, static_cast<unsigned char>(i % 2)});
  }
  Block const block = blockOf(rows);
  std::size_t const before = locksTaken;
  Driver driver(static_cast<FWFModus>(GetParam()), scannerWithSystemWave(), directory.path(), "scan.las",
                maxWaveformLength);
  std::size_t const ready = locksTaken;
  EXPECT_GT(ready, before);  // by the planner: the counter works
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(block.run(driver, scanNoise).size(), 25U);
    EXPECT_EQ(block.run(driver, -1).size(), 25U);
  }
  EXPECT_EQ(locksTaken, ready);
}

INSTANTIATE_TEST_SUITE_P(Modes, DriverLocks, testing::Values(0U, 1U, 2U, 3U));

}  // namespace
}  // namespace FullWaveform
