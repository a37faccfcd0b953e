#pragma once

#include <algorithm>
#include <ctime>
#include <limits>

namespace FullWaveform::Bench {

/// Minimum thread time of several runs of the same work, in seconds.
class Stopwatch {
 public:
  template <class Work>
  void time(Work const& work) {
    double const start = now();
    work();
    minimum = std::min(minimum, now() - start);
  }
  [[nodiscard]] double fastest() const { return minimum; }

 private:
  static double now() {
    std::timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  }

  double minimum = std::numeric_limits<double>::infinity();
};

}  // namespace FullWaveform::Bench
