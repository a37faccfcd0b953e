#include <fullwaveform/driver/Decibel.h>

#include <cmath>

namespace FullWaveform {

float toDecibel(double counts, double unit) {
  // Slightly above 1, so that what would come out as about 0 dB is exactly 0.
  constexpr double leastAmplitude = 1.0001;
  double const amplitude = counts * unit;
  return amplitude < leastAmplitude ? 0.0F : static_cast<float>(20.0 * std::log10(amplitude));
}

}  // namespace FullWaveform
