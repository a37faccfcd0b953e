// On-board echoes in arrays of different lengths.
#include <cmath>

#include <fullwaveform/online/OnlineEvaluation.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

std::vector<float> narrowNumbers(Bytes& bytes, std::size_t count) {
  std::vector<float> all(count);
  std::generate(all.begin(), all.end(), [&bytes] { return bytes.narrowNumber(); });
  return all;
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  using Numbers = Kestra::MultiArray<1, double>;
  using NarrowNumbers = Kestra::MultiArray<1, float>;
  Fuzz::Bytes bytes(data, size);
  OnlineEvaluation<unsigned short> evaluation(Fuzz::scannerFrom(bytes));
  Numbers const shotTimes(bytes.numbers(bytes.upTo(60)));
  Numbers const ranges(bytes.numbers(bytes.upTo(60)));
  NarrowNumbers const amplitudes(narrowNumbers(bytes, bytes.upTo(60)));
  NarrowNumbers const reflectances(narrowNumbers(bytes, bytes.upTo(60)));
  Kestra::MultiArray<1, unsigned char> const flags(bytes.values<unsigned char>(bytes.upTo(60)));
  auto const waves = evaluation.apply(shotTimes, ranges, amplitudes, flags, reflectances);
  std::size_t echoes = 0;
  for (auto const& [time, wave] : waves) {
    Fuzz::require(!std::isnan(time), "a shot has a time");
    Fuzz::require(wave->size() > 0 && wave->isOnline(), "a shot has on-board echoes");
    double previous = -std::numeric_limits<double>::infinity();
    for (Peak const& peak : wave->peaks) {
      Fuzz::require(std::isnan(peak.time) || peak.time >= previous, "the nearest echo comes first");
      previous = peak.time;  // NaN sorts to the end, where it is not compared with another time
      ++echoes;
    }
    static_cast<void>(wave->print());
  }
  Fuzz::require(echoes <= shotTimes.size(), "no more echoes than values");
  return 0;
}
