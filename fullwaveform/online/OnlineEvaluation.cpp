#include <fullwaveform/online/OnlineEvaluation.h>

#include <algorithm>
#include <cmath>
#include <string>

#include <fullwaveform/host/Console.h>

namespace FullWaveform {
namespace {

/// Echoes by the time of their shot, in their order of arrival.
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

void speak(std::size_t leftOut) {
  if (leftOut == 0) {
    return;
  }
  Holdex::Console console;
  console << "OnlineEvaluation::apply: " << std::to_string(leftOut)
          << " echoes left out (no shot time, or no value in one of the arrays)";
}

}  // namespace

template <class T>
OnlineEvaluation<T>::OnlineEvaluation(ScannerDevice const& scanner) : scanner(scanner) {}

template <class T>
std::map<double, Holdex::StrongPtr<WavePoints<T>>> OnlineEvaluation<T>::apply(
    Kestra::MultiArray<1, double> const& shotTimes, Kestra::MultiArray<1, double> const& ranges,
    Kestra::MultiArray<1, float> const& amplitudes, Kestra::MultiArray<1, unsigned char> const& flags,
    Kestra::MultiArray<1, float> const& reflectances) {
  auto const [shortest, longest] =
      std::minmax({shotTimes.size(), ranges.size(), amplitudes.size(), flags.size(), reflectances.size()});
  gaps = 0;
  std::size_t leftOut = longest;
  std::map<double, Holdex::StrongPtr<WavePoints<T>>> waves;
  for (auto& [shotTime, echoes] : groupByShot(shotTimes, shortest)) {
    leftOut -= echoes.size();
    orderByTravelTime(echoes, ranges);
    gaps += countWideGaps(echoes, ranges);
    auto const wave = Holdex::makeStrong<WavePoints<T>>(flags[echoes.front()], shotTime, 0.0);
    for (std::size_t const i : echoes) {
      wave->push_back({static_cast<double>(amplitudes[i]), 0.0, 2.0 * travelTime(ranges[i]), ONLINE_OWP, GOOD,
                       0.0, 0, reflectances[i]});
    }
    waves.emplace_hint(waves.end(), shotTime, wave);
  }
  speak(leftOut);
  return waves;
}

/// Equal times keep their order of arrival; what is not a number comes last.
/// @param echoes  indices of the echoes, ascending
template <class T>
void OnlineEvaluation<T>::orderByTravelTime(std::vector<std::size_t>& echoes,
                                            Kestra::MultiArray<1, double> const& ranges) const {
  std::sort(echoes.begin(), echoes.end(), [&](std::size_t left, std::size_t right) {
    double const sooner = travelTime(ranges[left]);
    double const later = travelTime(ranges[right]);
    if (std::isnan(sooner) || std::isnan(later)) {
      return std::isnan(sooner) && std::isnan(later) ? left < right : std::isnan(later);
    }
    return sooner < later || (sooner == later && left < right);
  });
}

/// @param echoes  of one shot, ordered by travel time
template <class T>
std::size_t OnlineEvaluation<T>::countWideGaps(std::vector<std::size_t> const& echoes,
                                               Kestra::MultiArray<1, double> const& ranges) const {
  double const halfOfZone = 0.5 * scanner.getMTALengthAsTime();
  std::size_t wide = 0;
  for (std::size_t k = 1; k < echoes.size(); ++k) {
    double const gap = travelTime(ranges[echoes[k]]) - travelTime(ranges[echoes[k - 1]]);
    wide += halfOfZone > gap ? 0U : 1U;
  }
  return wide;
}

template class OnlineEvaluation<unsigned short>;

}  // namespace FullWaveform
