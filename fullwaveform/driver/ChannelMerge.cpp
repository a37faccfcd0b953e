#include <fullwaveform/driver/ChannelMerge.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <memory_resource>
#include <vector>

namespace FullWaveform {
namespace {

constexpr float saturated = 3000.0F;       // counts
constexpr double sameEchoIntervals = 3.0;  // sampling intervals

constexpr std::uint64_t workPerMergedEcho = 200;  // operations

/// Sorted times of echoes, in which a near one is found without comparing all: waveforms of noise have
/// thousands of echoes.
class EchoTimes {
 public:
  template <class Predicate>
  EchoTimes(MergeEchoes const& echoes, Predicate const& isUsed) {
    times.reserve(echoes.times.size());
    for (std::size_t i = 0; i < echoes.times.size(); ++i) {
      if (echoes.removed[i] == 0 && isUsed(echoes.amplitudes[i]) && !std::isnan(echoes.times[i])) {
        times.push_back(echoes.times[i]);
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
  static constexpr std::size_t fewEchoes = 32;

  // Most shots have few echoes, whose times fit here without the heap.
  alignas(double) std::array<std::byte, fewEchoes * sizeof(double)> buffer{};
  std::pmr::monotonic_buffer_resource memory{buffer.data(), buffer.size()};
  std::pmr::vector<double> times{&memory};
};

}  // namespace

void mergeChannels(MergeEchoes const& highPower, MergeEchoes const& lowPower, double samplingInterval) {
  if (highPower.times.empty() || lowPower.times.empty()) {
    return;
  }
  double const maxDistance = sameEchoIntervals * samplingInterval;
  EchoTimes const high(highPower, [](float /*any*/) { return true; });
  EchoTimes const lowKept(lowPower, [](float amplitude) { return amplitude <= saturated; });
  for (std::size_t i = 0; i < lowPower.times.size(); ++i) {
    if (lowPower.amplitudes[i] > saturated && high.hasNear(lowPower.times[i], maxDistance)) {
      lowPower.removed[i] = 1;
    }
  }
  for (std::size_t i = 0; i < highPower.times.size(); ++i) {
    if (lowKept.hasNear(highPower.times[i], maxDistance)) {
      highPower.removed[i] = 1;
    }
  }
}

void ShotEchoes::clear() {
  waveforms.clear();
  times.clear();
  amplitudes.clear();
  removed.clear();
}

void ShotEchoes::startWaveform(bool isHighPower) {
  waveforms.push_back({isHighPower, times.size()});
}

void ShotEchoes::add(double time, float amplitude) {
  times.push_back(time);
  amplitudes.push_back(amplitude);
  removed.push_back(0);
}

MergeEchoes ShotEchoes::echoesOf(std::size_t waveform) {
  std::size_t const first = waveforms[waveform].firstEcho;
  std::size_t const end = waveform + 1 < waveforms.size() ? waveforms[waveform + 1].firstEcho : times.size();
  std::size_t const count = end - first;
  return {std::span(times).subspan(first, count), std::span(amplitudes).subspan(first, count),
          std::span(removed).subspan(first, count)};
}

void ShotEchoes::merge(double samplingInterval, WorkMeter& work) {
  for (std::size_t high = 0; high < waveforms.size(); ++high) {
    for (std::size_t low = 0; waveforms[high].isHighPower && low < waveforms.size(); ++low) {
      if (!waveforms[low].isHighPower) {
        MergeEchoes const highPower = echoesOf(high);
        MergeEchoes const lowPower = echoesOf(low);
        work.pass(workPerMergedEcho * (highPower.times.size() + lowPower.times.size() + 1));
        mergeChannels(highPower, lowPower, samplingInterval);
      }
    }
  }
}

}  // namespace FullWaveform
