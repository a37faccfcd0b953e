#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace FullWaveform {

inline constexpr std::size_t maxFittedEchoes = 10;
inline constexpr std::size_t maxFitParameters = 1 + 3 * maxFittedEchoes;

/// An echo as the fit moves it.
struct FittedEcho {
  double position = 0.0;   ///< sample index of the maximum of the pulse
  double amplitude = 0.0;  ///< factor of the pulse, counts
  double variance = 0.0;   ///< added to the pulse, samples squared
  bool hasFreeWidth = false;

  bool operator==(FittedEcho const&) const = default;
};

/// A hypothesis: a baseline and some echoes, and how well they explain the waveform.
struct Hypothesis {
  double baseline = 0.0;
  std::size_t count = 0;
  std::array<FittedEcho, maxFittedEchoes> echoes{};
  double energy = 0.0;     ///< -2 ln of likelihood and priors, up to a constant
  double cost = 0.0;       ///< energy plus the cost of the echoes: the smaller, the better
  double chiSquare = 0.0;  ///< sum of the weighted squares of the residual
  bool hasConverged = false;

  void add(FittedEcho const& echo) { echoes[count++] = echo; }
  void remove(std::size_t index) {
    for (std::size_t k = index; k + 1 < count; ++k) {
      echoes[k] = echoes[k + 1];
    }
    --count;
  }
  [[nodiscard]] bool hasSameParameters(Hypothesis const& other) const {
    return baseline == other.baseline && count == other.count &&
           std::equal(echoes.begin(), echoes.begin() + static_cast<std::ptrdiff_t>(count),
                      other.echoes.begin());
  }
};

}  // namespace FullWaveform
