#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

constexpr float maxAmplitude = 4096.0F;  // counts, digitiser limit
constexpr double maxWidth = 50.0;        // samples

}  // namespace

template <class T>
bool markBadPeaks(std::list<Peak>& peaks, int const& firstIndex, int const& lastIndex,
                  T const& minimumAmplitude) {
  bool allGood = true;
  for (Peak& peak : peaks) {
    bool const outOfRange =
        peak.idx < static_cast<double>(firstIndex) || peak.idx > static_cast<double>(lastIndex);
    bool const wrongAmplitude =
        peak.amplitude > maxAmplitude || peak.amplitude < static_cast<float>(minimumAmplitude);
    bool const wrongWidth = peak.std > maxWidth || peak.std < 0.0;
    if (outOfRange || wrongAmplitude || wrongWidth) {
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
