#include <bench/support/BareTransforms.h>

#include <limits>
#include <optional>
#include <utility>

#include <bench/support/Stopwatch.h>

namespace FullWaveform::Bench {
namespace {

bool hasSmallFactors(std::uint32_t length) {
  for (std::uint32_t const factor : {2U, 3U, 5U, 7U}) {
    while (length % factor == 0) {
      length /= factor;
    }
  }
  return length == 1;
}

}  // namespace

BareTransforms::BareTransforms(std::uint32_t length)
    : length(length),
      values(fftw_alloc_real(length)),
      spectrum(fftw_alloc_complex(length / 2 + 1)),
      back(fftw_alloc_real(length)),
      forward(fftw_plan_dft_r2c_1d(static_cast<int>(length), values.get(), spectrum.get(), FFTW_ESTIMATE)),
      inverse(fftw_plan_dft_c2r_1d(static_cast<int>(length), spectrum.get(), back.get(), FFTW_ESTIMATE)) {
  for (std::uint32_t i = 0; i < length; ++i) {
    values.get()[i] = static_cast<double>(i % 17);
  }
}

BareTransforms BareTransforms::fastestOfAtLeast(std::uint32_t minLength) {
  std::optional<BareTransforms> best;
  double bestTime = std::numeric_limits<double>::infinity();
  for (std::uint32_t length = minLength; length <= 2 * minLength; ++length) {
    if (!hasSmallFactors(length)) {
      continue;
    }
    BareTransforms candidate(length);
    Stopwatch watch;
    for (int run = 0; run < 20; ++run) {
      watch.time([&] { candidate.execute(20); });
    }
    if (watch.fastest() < bestTime) {
      bestTime = watch.fastest();
      best.emplace(std::move(candidate));
    }
  }
  return std::move(*best);
}

void BareTransforms::execute(int pairs) const {
  for (int i = 0; i < pairs; ++i) {
    fftw_execute(forward.get());
    fftw_execute(inverse.get());
  }
}

}  // namespace FullWaveform::Bench
