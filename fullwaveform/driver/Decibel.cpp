#include <fullwaveform/driver/Decibel.h>

#include <cmath>

namespace FullWaveform {

float toDecibel(double counts, double unit) {
  // Slightly above 1, so that values of about 0 dB become exactly 0.
  constexpr double minAmplitude = 1.0001;
  double const amplitude = counts * unit;
  return amplitude < minAmplitude ? 0.0F : static_cast<float>(20.0 * std::log10(amplitude));
}

}  // namespace FullWaveform
