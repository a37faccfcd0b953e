#include <fullwaveform/online/OnlineEvaluation.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

/// Indices of echoes by the time of their shot, in order of arrival.
using Grouping = std::map<double, std::vector<std::size_t>>;

Grouping groupByShot(Kestra::MultiArray<1, double> const& shotTimes, std::size_t count) {
  Grouping shots;
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isnan(shotTimes[i])) {
      shots[shotTimes[i]].push_back(i);
    }
  }
  return shots;
}

/// Sorts ascending indices of echoes by travel time. Equal times keep their order of arrival; NaN comes last.
void sortByTravelTime(std::vector<std::size_t>& echoes, Kestra::MultiArray<1, double> const& ranges,
                      double groupVelocity) {
  std::sort(echoes.begin(), echoes.end(), [&](std::size_t left, std::size_t right) {
    double const leftTime = ranges[left] / groupVelocity;
    double const rightTime = ranges[right] / groupVelocity;
    if (std::isnan(leftTime) || std::isnan(rightTime)) {
      return std::isnan(leftTime) == std::isnan(rightTime) ? left < right : std::isnan(rightTime);
    }
    return leftTime < rightTime || (leftTime == rightTime && left < right);
  });
}

void reportSkipped(std::size_t echoes) {
  if (echoes != 0) {
    logMessage("OnlineEvaluation::apply: skipped echoes: " + std::to_string(echoes) +
               " (NaN shot time, or a missing array value)");
  }
}

}  // namespace

template <class T>
OnlineEvaluation<T>::OnlineEvaluation(ScannerDevice const& scanner) : scanner(scanner) {}

template <class T>
std::map<double, Holdex::StrongPtr<WavePoints<T>>> OnlineEvaluation<T>::apply(
    Kestra::MultiArray<1, double> const& shotTimes, Kestra::MultiArray<1, double> const& ranges,
    Kestra::MultiArray<1, float> const& amplitudes, Kestra::MultiArray<1, unsigned char> const& flags,
    Kestra::MultiArray<1, float> const& reflectances) const {
  auto const [shortest, longest] =
      std::minmax({shotTimes.size(), ranges.size(), amplitudes.size(), flags.size(), reflectances.size()});
  std::size_t skipped = longest;
  std::map<double, Holdex::StrongPtr<WavePoints<T>>> waves;
  for (auto& [shotTime, echoes] : groupByShot(shotTimes, shortest)) {
    skipped -= echoes.size();
    sortByTravelTime(echoes, ranges, scanner.group_velocity);
    auto const wave = Holdex::makeStrong<WavePoints<T>>(flags[echoes.front()], shotTime, 0.0);
    for (std::size_t const i : echoes) {
      double const time = 2.0 * (ranges[i] / scanner.group_velocity);
      wave->push_back(
          {static_cast<double>(amplitudes[i]), 0.0, time, ONLINE_OWP, GOOD, 0.0, 0, reflectances[i]});
    }
    waves.emplace_hint(waves.end(), shotTime, wave);
  }
  reportSkipped(skipped);
  return waves;
}

template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform
