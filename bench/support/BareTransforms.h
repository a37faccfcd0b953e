#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <type_traits>

#include <fftw3.h>

namespace FullWaveform::Bench {

/// The fastest of several runs of the same work, in seconds of this thread: what it costs when nothing
/// disturbs it.
class Stopwatch {
 public:
  template <class Work>
  void time(Work const& work) {
    double const start = now();
    work();
    least = std::min(least, now() - start);
  }
  [[nodiscard]] double fastest() const { return least; }

 private:
  static double now() {
    std::timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  }

  double least = std::numeric_limits<double>::infinity();
};

/// A transform of real values and the one back, and nothing else.
class BareTransforms {
 public:
  explicit BareTransforms(std::uint32_t length);

  /// Those of the length from `least` on that are the fastest on this machine, by trial of all lengths of the
  /// factors 2, 3, 5 and 7 up to twice of it.
  static BareTransforms fastestOfAtLeast(std::uint32_t least);

  void execute(int pairs) const;
  [[nodiscard]] std::uint32_t fftLength() const { return length; }

 private:
  struct Free {
    void operator()(void* memory) const { fftw_free(memory); }
    void operator()(fftw_plan plan) const { fftw_destroy_plan(plan); }
  };

  std::uint32_t length;
  std::unique_ptr<double, Free> values;
  std::unique_ptr<fftw_complex, Free> spectrum;
  std::unique_ptr<double, Free> back;
  std::unique_ptr<std::remove_pointer_t<fftw_plan>, Free> forward;
  std::unique_ptr<std::remove_pointer_t<fftw_plan>, Free> inverse;
};

}  // namespace FullWaveform::Bench
