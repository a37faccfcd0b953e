#include <fullwaveform/deconvolution/TransformLength.h>

#include <algorithm>
#include <array>
#include <bit>

namespace FullWaveform {
namespace {

/// Lengths that are faster than every greater one, measured with FFTW_ESTIMATE plans. A fixed list, because
/// with lengths chosen by timing at run time the rounding of results would differ between runs.
constexpr std::array<std::uint32_t, 24> fastLengths{32,  36,  42,   56,   72,   90,   112,  128,
                                                    144, 180, 200,  240,  320,  384,  448,  576,
                                                    640, 768, 1024, 1152, 1440, 1536, 1600, 2048};

/// The next length of the form a * 2^k with a from 5 to 8; at most a quarter longer than `minLength`.
std::uint32_t roundedUp(std::uint32_t minLength) {
  std::uint32_t const unit = std::bit_floor(minLength - 1) / 4;
  return (minLength + unit - 1) / unit * unit;
}

}  // namespace

std::uint32_t fastTransformLength(std::uint32_t minLength) {
  constexpr std::uint32_t maxLength = 1U << 30U;
  if (minLength == 0 || minLength > maxLength) {
    return minLength;
  }
  auto const* const found = std::lower_bound(fastLengths.begin(), fastLengths.end(), minLength);
  return found != fastLengths.end() ? *found : roundedUp(minLength);
}

}  // namespace FullWaveform
