#include <fullwaveform/driver/ChannelMerge.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace FullWaveform {
namespace {

constexpr float saturated = 3000.0F;       // counts
constexpr double sameEchoIntervals = 3.0;  // sampling intervals

/// Sorted times of echoes, in which a near one is found without comparing all: waveforms of noise have
/// thousands of echoes.
class EchoTimes {
 public:
  template <class Predicate>
  EchoTimes(std::list<Peak> const& peaks, Predicate const& isUsed) {
    for (Peak const& peak : peaks) {
      if (isUsed(peak) && !std::isnan(peak.time)) {
        times.push_back(peak.time);
      }
    }
    std::sort(times.begin(), times.end());
  }

  /// Whether one of the times is less than `maxDistance` from `time`.
  [[nodiscard]] bool hasNear(double time, double maxDistance) const {
    auto const next = std::lower_bound(times.begin(), times.end(), time);
    return (next != times.end() && *next - time < maxDistance) ||
           (next != times.begin() && time - *(next - 1) < maxDistance);
  }

 private:
  std::vector<double> times;
};

}  // namespace

void mergeChannels(std::list<Peak>& highPower, std::list<Peak>& lowPower, double samplingInterval) {
  if (highPower.empty() || lowPower.empty()) {
    return;
  }
  double const maxDistance = sameEchoIntervals * samplingInterval;
  EchoTimes const high(highPower, [](Peak const& /*any*/) { return true; });
  EchoTimes const lowKept(lowPower, [](Peak const& peak) { return peak.amplitude <= saturated; });
  lowPower.remove_if(
      [&](Peak const& peak) { return peak.amplitude > saturated && high.hasNear(peak.time, maxDistance); });
  highPower.remove_if([&](Peak const& peak) { return lowKept.hasNear(peak.time, maxDistance); });
}

}  // namespace FullWaveform
