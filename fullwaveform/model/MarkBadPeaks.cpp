#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr float largestAmplitude = 4096.0F;  // counts, full scale of the digitisers
constexpr double largestWidth = 50.0;        // samples

}  // namespace

template <class T>
bool markBadPeaks(std::list<Peak>& peaks, int const& firstIndex, int const& lastIndex,
                  T const& minimumAmplitude) {
  bool allGood = true;
  for (Peak& peak : peaks) {
    bool const misplaced =
        peak.idx < static_cast<double>(firstIndex) || peak.idx > static_cast<double>(lastIndex);
    bool const implausible =
        peak.amplitude > largestAmplitude || peak.amplitude < static_cast<float>(minimumAmplitude);
    bool const misshapen = peak.std > largestWidth || peak.std < 0.0;
    if (misplaced || implausible || misshapen) {
      peak.quality = EXCEEDS_RANGE;
      allGood = false;
    }
  }
  return allGood;
}

void removeBadPeaks(std::list<Peak>& peaks) {
  peaks.remove_if([](Peak const& peak) { return peak.quality >= EXCEEDS_RANGE; });
}

template bool markBadPeaks<unsigned short>(std::list<Peak>&, int const&, int const&, unsigned short const&);

}  // namespace FullWaveform
