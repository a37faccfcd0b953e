#include <fullwaveform/pulsefit/PulseFit.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <fullwaveform/fitting/InstructionSet.h>
#include <fullwaveform/pulsefit/EchoCost.h>
#include <fullwaveform/pulsefit/EchoFit.h>
#include <fullwaveform/pulsefit/EchoSearch.h>
#include <fullwaveform/pulsefit/PulseTable.h>
#include <fullwaveform/text/Number.h>

namespace FullWaveform {

struct PulseFit::Search {
  Search(PulseModel const& model, PulseFitSettings const& settings, InstructionSet set)
      : baseline(model.baseline),
        limit(settings.digitiserLimit),
        table(model, settings.maxVariance),
        echoCost(model, settings),
        fit(model, table, set),
        search(table, set) {
    echoes.reserve(maxFittedEchoes);
  }

  PulseFitResult run(std::span<unsigned short const> samples);
  PulseEcho echoOf(Hypothesis const& hypothesis, std::size_t index, bool isRegular) const;

  double baseline;
  double limit;
  PulseTable table;
  EchoCost echoCost;
  EchoFit fit;
  EchoSearch search;
  FitMatrix covariance{};
  std::vector<PulseEcho> echoes;
};

std::string PulseFitSettings::error() const {
  auto const invalid = [](std::string const& name, double value, std::string const& rule) {
    return "invalid " + name + " " + shortestText(value) + " of the pulse fit; expected " + rule;
  };
  constexpr double highestRate = 100.0;
  constexpr double highestVariance = 10000.0;  // a standard deviation of 100 samples
  if (!(falseAlarms > 0.0 && falseAlarms <= highestRate)) {
    return invalid("rate of false alarms", falseAlarms, "above 0 and at most 100 per 1000 waveforms");
  }
  if (!std::isnan(minEchoCost) && !(minEchoCost >= 0.0 && std::isfinite(minEchoCost))) {
    return invalid("minimum cost of an echo", minEchoCost, "a finite number, at least 0");
  }
  if (std::isnan(digitiserLimit)) {
    return invalid("digitiser limit", digitiserLimit, "a number of counts");
  }
  if (!(maxVariance > 0.0 && maxVariance <= highestVariance)) {
    return invalid("maximum variance", maxVariance, "above 0 and at most 10000 samples squared");
  }
  return "";
}

PulseFit::PulseFit(PulseModel const& model, PulseFitSettings const& settings)
    : message(model.error().empty() ? settings.error() : model.error()) {
  if (message.empty()) {
    search = std::make_unique<Search>(model, settings, widestInstructionSet());
  }
}

PulseFit::~PulseFit() = default;

std::string const& PulseFit::error() const {
  return message;
}

PulseFitResult PulseFit::apply(std::span<unsigned short const> samples) {
  if (search == nullptr || samples.empty()) {
    return {};
  }
  return search->run(samples);
}

void PulseFit::addPulses(std::span<PulseEcho const> echoes, std::span<double const> places,
                         std::span<double> heights) const {
  if (search == nullptr) {
    return;
  }
  PulseTable const& table = search->table;
  for (PulseEcho const& echo : echoes) {
    double const variance = table.varianceAt(echo.fwhm);
    double const factor = echo.amplitude / table.shapeAt(variance).peak;
    for (std::size_t i = 0; i < places.size(); ++i) {
      heights[i] += factor * table.valueAt(places[i] - echo.position, variance);
    }
  }
}

PulseFitResult PulseFit::Search::run(std::span<unsigned short const> samples) {
  fit.setSignal(samples, limit);
  Hypothesis const hypothesis = search.run(fit, baseline, echoCost.at(samples.size()));
  bool const isRegular = fit.covariance(hypothesis, covariance);
  echoes.clear();
  std::size_t free = 1;
  for (std::size_t k = 0; k < hypothesis.count; ++k) {
    echoes.push_back(echoOf(hypothesis, k, isRegular));
    free += hypothesis.echoes[k].hasFreeWidth ? 3 : 2;
  }
  std::sort(echoes.begin(), echoes.end(),
            [](PulseEcho const& a, PulseEcho const& b) { return a.position < b.position; });
  auto const used = static_cast<std::size_t>(
      std::count_if(fit.weights().begin(), fit.weights().end(), [](double weight) { return weight > 0.0; }));
  double const freedom = static_cast<double>(used) - static_cast<double>(free);
  return {echoes, hypothesis.baseline,
          freedom > 0.0 ? hypothesis.chiSquare / freedom : std::numeric_limits<double>::quiet_NaN(),
          fit.clipped().size()};
}

PulseEcho PulseFit::Search::echoOf(Hypothesis const& hypothesis, std::size_t index, bool isRegular) const {
  FittedEcho const& state = hypothesis.echoes[index];
  PulseTable::Shape const shape = table.shapeAt(state.variance);
  PulseEcho echo;
  echo.position = state.position;
  echo.amplitude = state.amplitude * shape.peak;
  echo.fwhm = shape.fwhm;
  if (isRegular) {
    std::size_t const n = 1 + 3 * hypothesis.count;
    std::size_t const row = 3 * index;
    auto const at = [&](std::size_t a, std::size_t b) { return covariance[(row + a) * n + row + b]; };
    double const byVariance = state.amplitude * shape.peakSlope;  // the height depends on two parameters
    double const height = shape.peak * shape.peak * at(1, 1) + 2.0 * shape.peak * byVariance * at(1, 2) +
                          byVariance * byVariance * at(2, 2);
    echo.sigmaPosition = std::sqrt(at(0, 0));
    echo.sigmaAmplitude = std::sqrt(std::max(height, 0.0));
    echo.sigmaFwhm = std::abs(shape.fwhmSlope) * std::sqrt(at(2, 2));
    echo.significance = echo.amplitude / echo.sigmaAmplitude;
  }
  double const half = 0.5 * shape.fwhm;
  auto const isNear = [&](std::uint32_t sample) {
    return std::abs(static_cast<double>(sample) - state.position) <= shape.fwhm;
  };
  bool const isClipped = std::any_of(fit.clipped().begin(), fit.clipped().end(), isNear);
  bool const isAtEdge =
      state.position < half || state.position > static_cast<double>(fit.samples()) - 1.0 - half;
  auto const flag = [&echo](bool isSet, PulseEchoFlag which) {
    if (isSet) {
      echo.flags |= which;
    }
  };
  flag(state.hasFreeWidth, FREE_WIDTH);
  flag(isClipped, CLIPPED);
  flag(isAtEdge, AT_EDGE);
  flag(!hypothesis.hasConverged, NOT_CONVERGED);
  return echo;
}

}  // namespace FullWaveform
