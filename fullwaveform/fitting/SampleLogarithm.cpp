#include <fullwaveform/fitting/SampleLogarithm.h>

namespace FullWaveform {

std::array<double, tabulatedSamples> const& sampleLogarithms() {
  static std::array<double, tabulatedSamples> const table = [] {
    std::array<double, tabulatedSamples> logarithms{};
    for (std::size_t i = 0; i < logarithms.size(); ++i) {
      logarithms[i] = std::log(static_cast<double>(i));
    }
    return logarithms;
  }();
  return table;
}

}  // namespace FullWaveform
