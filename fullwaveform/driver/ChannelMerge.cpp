#include <fullwaveform/driver/ChannelMerge.h>

#include <algorithm>
#include <cmath>

namespace FullWaveform {
namespace {

constexpr float saturated = 3000.0F;       // counts
constexpr double sameEchoIntervals = 3.0;  // sampling intervals

}  // namespace

void mergeChannels(std::list<Peak>& highPower, std::list<Peak>& lowPower, double samplingInterval) {
  double const maxDistance = sameEchoIntervals * samplingInterval;
  auto const same = [maxDistance](Peak const& p, Peak const& q) {
    return std::abs(q.time - p.time) < maxDistance;
  };

  lowPower.remove_if([&](Peak const& q) {
    return q.amplitude > saturated &&
           std::any_of(highPower.begin(), highPower.end(), [&](Peak const& p) { return same(p, q); });
  });
  for (Peak const& q : lowPower) {
    if (q.amplitude <= saturated) {
      highPower.remove_if([&](Peak const& p) { return same(p, q); });
    }
  }
}

}  // namespace FullWaveform
