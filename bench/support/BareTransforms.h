#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include <fftw3.h>

namespace FullWaveform::Bench {

/// A transform of real values and its inverse.
class BareTransforms {
 public:
  explicit BareTransforms(std::uint32_t length);

  /// The fastest of all lengths from `minLength` to twice that with prime factors 2, 3, 5 and 7, by trial.
  static BareTransforms fastestOfAtLeast(std::uint32_t minLength);

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
