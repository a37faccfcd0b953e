// Runs the driver over a block that another program wrote, and prints one line: thread time of the fastest
// run (s), thread time including the release of its result (s), heap size of the result (bytes), and wall
// time of a run over all threads (s). Thread times are not affected by other programs.
//
// measure SAMPLES ROWS COLUMNS WAVEFORMS_PER_SHOT MODE NOISE RUNS THREADS
// SAMPLES is a file of ROWS x COLUMNS unsigned 16-bit counts in native byte order. With several threads, each
// runs all rows with its own driver; the wall time is that of the last thread to finish.

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <ctime>

#include <bench/support/Waveforms.h>

namespace FullWaveform::Bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int runsPerRound = 5;

struct Times {
  double apply = std::numeric_limits<double>::infinity();    // s
  double release = std::numeric_limits<double>::infinity();  // s, including the run
  double bytes = 0.0;
  double wall = std::numeric_limits<double>::infinity();  // s, including the release
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

Block readBlock(char const* path, std::size_t rows, std::size_t columns, std::size_t perShot) {
  Samples samples(rows * columns);
  std::ifstream file(path, std::ios::binary);
  file.read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(2 * samples.size()));
  if (!file) {
    throw std::runtime_error(std::string(path) + " is truncated: fewer than ROWS x COLUMNS samples");
  }
  Block block;
  block.counts.assign(rows, static_cast<unsigned short>(columns));
  block.sblTimes.assign(rows, 0.0);
  for (std::size_t row = 0; row < rows; ++row) {
    block.shotTimes.push_back(static_cast<double>(row / perShot));
    block.channelFlags.push_back(static_cast<unsigned char>(row % 2));
  }
  block.waveforms = Testing::Driver::Waveforms(new Testing::Array({rows, columns}, std::move(samples)));
  return block;
}

/// Heap size of the result of one run, bytes.
double bytesOfResult(Block const& block, Testing::Driver& driver, int noise) {
  auto const before = mallinfo2().uordblks;
  ShotMap const shots = block.run(driver, noise);
  return static_cast<double>(mallinfo2().uordblks) - static_cast<double>(before);
}

Times measure(Block const& block, FWFModus modus, int noise, int runs, std::barrier<>& barrier) {
  Testing::Driver driver(modus, scanner(), "no such directory", "measure",
                         static_cast<unsigned>(block.waveforms->columns()));
  Times times;
  times.bytes = bytesOfResult(block, driver, noise);
  for (int run = 0; run < runs; run += runsPerRound) {
    barrier.arrive_and_wait();
    auto const wallStart = Clock::now();
    for (int i = 0; i < runsPerRound; ++i) {
      double const start = threadSeconds();
      {
        ShotMap const shots = block.run(driver, noise);
        times.apply = std::min(times.apply, threadSeconds() - start);
      }
      times.release = std::min(times.release, threadSeconds() - start);
    }
    barrier.arrive_and_wait();
    times.wall = std::min(times.wall, secondsSince(wallStart) / runsPerRound);
  }
  return times;
}

void run(char** arguments) {
  auto const number = [arguments](int index) { return std::atoi(arguments[index]); };
  Block const block = readBlock(arguments[1], static_cast<std::size_t>(number(2)),
                                static_cast<std::size_t>(number(3)), static_cast<std::size_t>(number(4)));
  auto const threads = static_cast<std::size_t>(number(8));
  std::barrier<> barrier(static_cast<std::ptrdiff_t>(threads));
  std::vector<Times> times(threads);
  std::vector<std::thread> workers;
  for (std::size_t thread = 0; thread < threads; ++thread) {
    workers.emplace_back([&, thread] {
      times[thread] = measure(block, static_cast<FWFModus>(number(5)), number(6), number(7), barrier);
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  std::cout << times[0].apply << ' ' << times[0].release << ' ' << times[0].bytes << ' ' << times[0].wall
            << '\n';
}

}  // namespace
}  // namespace FullWaveform::Bench

int main(int count, char** arguments) {
  if (count != 9) {
    std::cerr << "measure SAMPLES ROWS COLUMNS WAVEFORMS_PER_SHOT MODE NOISE RUNS THREADS\n";
    return 2;
  }
  FullWaveform::Bench::run(arguments);
}
