#include <fullwaveform/deconvolution/TransformLength.h>

#include <algorithm>
#include <array>
#include <bit>

namespace FullWaveform {
namespace {

/// Measured with FFTW's estimated plans: no longer one is faster. A fixed list, since lengths that were timed
/// while running would round differently from run to run.
constexpr std::array<std::uint32_t, 24> fastLengths{32,  36,  42,   56,   72,   90,   112,  128,
                                                    144, 180, 200,  240,  320,  384,  448,  576,
                                                    640, 768, 1024, 1152, 1440, 1536, 1600, 2048};

/// The next length of the form a * 2^k with a from 5 to 8, at most a quarter longer.
std::uint32_t roundedUp(std::uint32_t least) {
  std::uint32_t const unit = std::bit_floor(least - 1) / 4;
  return (least + unit - 1) / unit * unit;
}

}  // namespace

std::uint32_t fastTransformLength(std::uint32_t least) {
  constexpr std::uint32_t longest = 1U << 30U;
  if (least == 0 || least > longest) {
    return least;
  }
  auto const* const found = std::lower_bound(fastLengths.begin(), fastLengths.end(), least);
  return found != fastLengths.end() ? *found : roundedUp(least);
}

}  // namespace FullWaveform
