#include <fullwaveform/pulsefit/EchoSearch.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace FullWaveform {
namespace {

constexpr double searchScatter = 4.0;  // factor on the scatter while echoes are looked for
constexpr double minScore = 3.0;       // standard deviations
// What an echo must gain in place of a free width: with 17 instead, one pair of SNR 100 at 0.55 pulse widths
// in ten is taken for one wide echo.
constexpr double gainOverFreeWidth = 11.0;
constexpr double minWidthCost = 8.0;
constexpr double maxWidthCost = 30.0;
constexpr double isolation = 8.0;      // samples beyond which an echo does not change the others
constexpr double clearGain = 200.0;    // of the cost: there is more to find before details are looked at
constexpr double neighbourhood = 6.0;  // samples

/// Sum of the squares of the residual around an echo, and the number of samples in it.
struct LocalFit {
  double chiSquare = 0.0;
  double samples = 0.0;

  [[nodiscard]] bool exceeds(double deviations) const {
    return chiSquare > samples + deviations * std::sqrt(2.0 * samples);
  }
};

LocalFit localFit(EchoFit const& fit, double position) {
  constexpr double before = 5.0;
  constexpr double after = 6.0;
  auto const first = static_cast<std::size_t>(std::max(std::ceil(position - before), 0.0));
  double const last = std::floor(position + after);
  LocalFit local;
  for (std::size_t i = first; i < fit.samples() && static_cast<double>(i) <= last; ++i) {
    if (fit.weights()[i] > 0.0) {
      local.chiSquare += fit.weights()[i] * fit.residual()[i] * fit.residual()[i];
      local.samples += 1.0;
    }
  }
  return local;
}

bool keepBetter(Hypothesis const& candidate, Hypothesis& best) {
  if (candidate.cost < best.cost) {
    best = candidate;
    return true;
  }
  return false;
}

/// Two echoes in place of one, around it, with a share of its amplitude for the first.
Hypothesis split(Hypothesis const& from, std::size_t index, double share, double variance) {
  double const spread = std::sqrt(std::clamp(variance, 0.3, 6.0));
  double const distance = 2.3 * spread;
  FittedEcho const& echo = from.echoes[index];
  Hypothesis result = from;
  result.echoes[index] = {echo.position - (1.0 - share) * distance, share * echo.amplitude};
  result.add({echo.position + share * distance, (1.0 - share) * echo.amplitude});
  return result;
}

}  // namespace

EchoSearch::EchoSearch(PulseTable const& table, InstructionSet set) : filter(table, set) {}

Hypothesis EchoSearch::run(EchoFit& fit, double baseline, double costOfEcho) {
  constexpr std::size_t maxRounds = 3 * maxFittedEchoes;
  echoCost = costOfEcho;
  widthCost = std::clamp(echoCost - gainOverFreeWidth, minWidthCost, maxWidthCost);
  fit.setCosts(echoCost, widthCost);
  fit.setScatterFactor(searchScatter);
  fit.setWidthsOfSeveral(false);
  Hypothesis hypothesis;
  hypothesis.baseline = baseline;
  fit.refine(hypothesis);
  for (std::size_t round = 0; round < maxRounds; ++round) {
    Hypothesis best = hypothesis;
    if (!addEcho(fit, hypothesis, best)) {
      reshape(fit, hypothesis, best);
    }
    if (!(best.cost < hypothesis.cost - 1e-6)) {
      break;
    }
    hypothesis = best;
    prune(fit, hypothesis);
  }
  settle(fit, hypothesis);
  return hypothesis;
}

/// The last fit, with the number of echoes known.
void EchoSearch::settle(EchoFit& fit, Hypothesis& hypothesis) const {
  fit.setScatterFactor(1.0);
  if (hypothesis.count > 1) {
    fit.setWidthsOfSeveral(true);
    for (std::size_t k = 0; k < hypothesis.count; ++k) {
      FittedEcho& echo = hypothesis.echoes[k];
      echo.hasFreeWidth = echo.hasFreeWidth && fit.widthPrior().at(echo.variance).value > widthCost;
    }
  }
  fit.refine(hypothesis);
}

/// Adds the best candidate, if that lowers the cost.
/// @return whether the new echo is so clear and so far from the others that they need no look in this round
bool EchoSearch::addEcho(EchoFit& fit, Hypothesis const& from, Hypothesis& best) {
  Hypothesis at = from;
  fit.evaluate(at);
  Candidate const candidate = filter.best(fit);
  if (from.count == maxFittedEchoes || candidate.square <= std::max(minScore * minScore, 0.5 * echoCost)) {
    return false;
  }
  Hypothesis next = from;
  next.add({candidate.position, std::max(candidate.amplitude, 0.1)});
  fit.refine(next);
  bool const isBetter = keepBetter(next, best);
  bool const isFar = std::none_of(
      from.echoes.begin(), from.echoes.begin() + static_cast<std::ptrdiff_t>(from.count),
      [&](FittedEcho const& echo) { return std::abs(echo.position - candidate.position) < isolation; });
  return isBetter && isFar && from.cost - best.cost > clearGain;
}

/// Frees the width of echoes that do not fit, or splits them in two.
void EchoSearch::reshape(EchoFit& fit, Hypothesis const& from, Hypothesis& best) const {
  constexpr double unusualWidth = 2.5 * 2.5;  // energy of 2.5 standard deviations
  std::array<bool, maxFittedEchoes> isSuspicious{};
  Hypothesis at = from;
  fit.evaluate(at);
  for (std::size_t k = 0; k < from.count; ++k) {
    FittedEcho const& echo = from.echoes[k];
    bool const isUnusual = !echo.hasFreeWidth && fit.widthPrior().at(echo.variance).value > unusualWidth;
    isSuspicious[k] = isUnusual || localFit(fit, echo.position).exceeds(2.0);
  }
  for (std::size_t k = 0; k < from.count; ++k) {
    if (!isSuspicious[k]) {
      continue;
    }
    Hypothesis wider = from;
    if (!from.echoes[k].hasFreeWidth) {
      wider.echoes[k].hasFreeWidth = true;
      fit.refine(wider);
      keepBetter(wider, best);
      if (!localFit(fit, wider.echoes[k].position).exceeds(1.0)) {
        continue;
      }
    }
    // Equal echoes are found from here as well, and unequal ones hardly from equal ones.
    for (double const share : {0.75, 0.25}) {
      if (from.count < maxFittedEchoes) {
        Hypothesis two = split(from, k, share, wider.echoes[k].variance);
        fit.refine(two);
        keepBetter(two, best);
      }
    }
  }
}

/// Removes echoes and ties widths again where that lowers the cost.
void EchoSearch::prune(EchoFit& fit, Hypothesis& hypothesis) const {
  constexpr double templateGain = 1.7;  // root of the sum of squares of a pulse of about four samples
  bool hasChanged = true;
  while (hasChanged) {
    hasChanged = false;
    for (std::size_t k = 0; k < hypothesis.count && !hasChanged; ++k) {
      FittedEcho const& echo = hypothesis.echoes[k];
      bool hasNeighbour = false;
      for (std::size_t l = 0; l < hypothesis.count; ++l) {
        hasNeighbour = hasNeighbour ||
                       (l != k && std::abs(hypothesis.echoes[l].position - echo.position) < neighbourhood);
      }
      double const score = templateGain * echo.amplitude / fit.noise();
      if (hasNeighbour || score * score < 3.0 * echoCost) {
        Hypothesis without = hypothesis;
        without.remove(k);
        fit.refine(without);
        hasChanged = keepBetter(without, hypothesis);
      }
      if (!hasChanged && echo.hasFreeWidth) {
        Hypothesis tied = hypothesis;
        tied.echoes[k].hasFreeWidth = false;
        fit.refine(tied);
        hasChanged = keepBetter(tied, hypothesis);
      }
    }
  }
}

}  // namespace FullWaveform
