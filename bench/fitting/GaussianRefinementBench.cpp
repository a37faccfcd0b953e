#include <fullwaveform/fitting/leastsquares/LevenbergMarquardt.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include <benchmark/benchmark.h>

#include <bench/support/Allocations.h>

#include "support/EigenRefinement.h"

#if defined(FULLWAVEFORM_CMINPACK)
#include <cminpack.h>
#endif

namespace FullWaveform::Bench {
namespace {

using Values = std::vector<double>;

/// A signal evenly filled with echoes, and a start near them.
struct Fit {
  Fit(std::size_t samples, std::size_t echoes) : signal(samples) {
    double const distance = static_cast<double>(samples) / static_cast<double>(echoes);
    for (std::size_t echo = 0; echo < echoes; ++echo) {
      double const height = 1000.0 / static_cast<double>(1 + 2 * echo);
      double const position = distance * (static_cast<double>(echo) + 0.46);
      for (std::size_t i = 0; i < samples; ++i) {
        signal[i] += height * std::exp(-0.5 * std::pow((static_cast<double>(i) - position) / 2.4, 2.0));
      }
      start.insert(start.end(), {0.93 * height, position - 0.4, 2.7});
    }
    for (std::size_t i = 0; i < samples; ++i) {
      signal[i] += 2.0 * std::sin(7.3 * static_cast<double>(i));
    }
  }

  Values signal;
  Values start;
};

Fit fitOf(benchmark::State const& state) {
  return {static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1))};
}

void refine(benchmark::State& state) {
  Fit const fit = fitOf(state);
  LevenbergMarquardt minimiser;
  Values parameters = fit.start;
  int evaluations = minimiser.minimise(fit.signal, 0, parameters);
  {
    PerWaveform const counters(state, 1);
    for (auto iteration : state) {
      std::copy(fit.start.begin(), fit.start.end(), parameters.begin());
      evaluations = minimiser.minimise(fit.signal, 0, parameters);
    }
  }
  state.counters["evaluations"] = evaluations;
}
BENCHMARK(refine)
    ->Name("GaussianRefinement/refine")
    ->ArgNames({"samples", "echoes"})
    ->ArgsProduct({{40, 80, 160, 400}, {1, 2, 3, 6}});

#if defined(FULLWAVEFORM_CMINPACK)
/// The function that cminpack calls: sets the residual, or the derivatives column by column.
int plainForCminpack(void* data, int count, int size, double const* parameters, double* residual,
                     double* jacobian, int stride, int what) {
  Values const& signal = *static_cast<Values*>(data);
  for (int i = 0; i < count && what == 1; ++i) {
    residual[i] = -signal[static_cast<std::size_t>(i)];
  }
  for (int p = 0; p < size; p += 3) {
    double const amplitude = std::abs(parameters[p]);
    double const position = std::abs(parameters[p + 1]);
    double const variance = parameters[p + 2] * parameters[p + 2];
    for (int i = 0; i < count; ++i) {
      double const distance = i - position;
      double const height = std::exp(-0.5 * distance * distance / variance);
      if (what == 1) {
        residual[i] += amplitude * height;
        continue;
      }
      jacobian[p * stride + i] = height;
      jacobian[(p + 1) * stride + i] = distance * amplitude * height / variance;
      jacobian[(p + 2) * stride + i] =
          amplitude * height * distance * distance / (std::abs(parameters[p + 2]) * variance);
    }
  }
  return 0;
}

int cminpackRefinement(Values& signal, Values& parameters) {
  auto const m = static_cast<int>(signal.size());
  auto const n = static_cast<int>(parameters.size());
  Values residual(signal.size());
  Values jacobian(signal.size() * parameters.size());
  Values scale(parameters.size());
  Values qtf(parameters.size());
  Values work(3 * parameters.size() + signal.size());
  std::vector<int> order(parameters.size());
  int evaluations = 0;
  int derivatives = 0;
  double* const free = work.data();
  lmder(plainForCminpack, &signal, m, n, parameters.data(), residual.data(), jacobian.data(), m, 0.001, 0.001,
        0.0, 20, scale.data(), 1, 100.0, 0, &evaluations, &derivatives, order.data(), qtf.data(), free,
        free + n, free + 2 * n, free + 3 * n);
  return evaluations;
}
#endif

/// Updates the shortest time of several runs, in microseconds per call.
template <class Work>
void keepFastest(double& fastest, Work const& work) {
  constexpr int calls = 200;
  auto const start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; ++i) {
    work();
  }
  std::chrono::duration<double, std::micro> const taken = std::chrono::steady_clock::now() - start;
  fastest = std::min(fastest, taken.count() / calls);
}

/// The same fit with several minimisers, timed in turn, so that other load of the machine affects them
/// equally.
void compare(benchmark::State& state) {
  Fit fit = fitOf(state);
  Values parameters = fit.start;
  constexpr double infinity = std::numeric_limits<double>::infinity();
  double eigen = infinity;
  [[maybe_unused]] double cminpack = infinity;
  double fast[2] = {infinity, infinity};
  std::vector<LevenbergMarquardt> minimisers;
  for (int set = 0; set < 2 && isAvailable(static_cast<InstructionSet>(set)); ++set) {
    minimisers.emplace_back(static_cast<InstructionSet>(set));
  }
  int evaluations = 0;
  for (auto iteration : state) {
    keepFastest(eigen, [&] {
      parameters = fit.start;
      evaluations = Testing::eigenRefinement(fit.signal, 0, parameters);
    });
#if defined(FULLWAVEFORM_CMINPACK)
    keepFastest(cminpack, [&] {
      parameters = fit.start;
      benchmark::DoNotOptimize(cminpackRefinement(fit.signal, parameters));
    });
#endif
    for (std::size_t i = 0; i < minimisers.size(); ++i) {
      keepFastest(fast[i], [&] {
        parameters = fit.start;
        benchmark::DoNotOptimize(minimisers[i].minimise(fit.signal, 0, parameters));
      });
    }
  }
  double const widest = fast[minimisers.size() - 1];
  state.counters["evaluations"] = evaluations;
  state.counters["us"] = widest;
  state.counters["usEigen"] = eigen;
  state.counters["timesEigen"] = eigen / widest;
  state.counters["timesEigenBaseline"] = eigen / fast[0];
#if defined(FULLWAVEFORM_CMINPACK)
  state.counters["usCminpack"] = cminpack;
  state.counters["timesCminpack"] = cminpack / widest;
#endif
}
BENCHMARK(compare)
    ->Name("GaussianRefinement/compare")
    ->ArgNames({"samples", "echoes"})
    ->Args({40, 1})
    ->Args({40, 2})
    ->Args({80, 2})
    ->Args({80, 6})
    ->Args({400, 6});

}  // namespace
}  // namespace FullWaveform::Bench
