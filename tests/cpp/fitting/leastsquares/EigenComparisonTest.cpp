// Compares the library's minimiser with Eigen's.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <fullwaveform/fitting/leastsquares/LevenbergMarquardt.h>
#include <gtest/gtest.h>

#include "support/EigenRefinement.h"
#include "support/HeapCount.h"
#include "support/Tolerances.h"

namespace FullWaveform {
namespace {

namespace Tolerance = Testing::Tolerance;
using Values = std::vector<double>;

struct Scene {
  int first;
  Values signal;
  Values start;
};

class Rng {
 public:
  explicit Rng(int seed) : numbers(static_cast<unsigned>(seed)) {}

  unsigned integer() { return static_cast<unsigned>(numbers()); }
  double between(double min, double max) {
    return min + (max - min) * static_cast<double>(numbers()) / 4294967295.0;
  }

 private:
  std::mt19937 numbers;
};

double gaussian(double x, double const* parameters) {
  double const widths = (x - parameters[1]) / parameters[2];
  return parameters[0] * std::exp(-0.5 * widths * widths);
}

/// Echoes at least four widths apart in noise of two counts, and a start near them.
Scene ordinaryScene(int seed) {
  Rng rng(seed);
  int const echoes = 1 + seed % 6;
  Scene scene{seed % 30, {}, {}};
  Values parameters;
  double position = scene.first + rng.between(3.0, 6.0);
  for (int echo = 0; echo < echoes; ++echo) {
    double const width = rng.between(1.2, 2.5);
    double const amplitude = rng.between(60.0, 2000.0);
    parameters.insert(parameters.end(), {amplitude, position, width});
    double const startAmplitude = amplitude * rng.between(0.8, 1.2);
    double const startPosition = position + rng.between(-0.4, 0.4);
    scene.start.insert(scene.start.end(), {startAmplitude, startPosition, width * rng.between(0.8, 1.2)});
    position += rng.between(10.0, 14.0);
  }
  int const samples = static_cast<int>(position) - scene.first;
  for (int i = 0; i < samples; ++i) {
    double value = rng.between(-3.0, 3.0);
    for (std::size_t p = 0; p < parameters.size(); p += 3) {
      value += gaussian(scene.first + i, parameters.data() + p);
    }
    scene.signal.push_back(value);
  }
  return scene;
}

/// An echo anywhere in a range of whole counts, and a start that is unrelated to it.
Scene wildScene(int seed) {
  Rng rng(seed);
  int const starts = 1 + static_cast<int>(rng.integer() % 4);
  int const samples = 3 * starts + static_cast<int>(rng.integer() % 60);
  Scene scene{static_cast<int>(rng.integer() % 100), {}, {}};
  double const position = scene.first + rng.between(0.0, samples);
  double const width = rng.between(0.8, 4.0);
  double const echo[] = {rng.between(30.0, 2000.0), position, width};
  for (int i = 0; i < samples; ++i) {
    scene.signal.push_back(std::round(rng.between(-4.0, 4.0) + gaussian(scene.first + i, echo)));
  }
  for (int start = 0; start < starts; ++start) {
    double const outside = rng.integer() % 4 == 0 ? 40.0 : 0.0;
    double const sign = rng.integer() % 5 == 0 ? -1.0 : 1.0;
    scene.start.push_back(sign * std::exp(rng.between(0.0, 8.5)));
    scene.start.push_back(scene.first + rng.between(-outside, samples + outside));
    scene.start.push_back(std::exp(rng.between(-1.6, 3.7)));
  }
  return scene;
}

Values minimised(Scene const& scene) {
  Values parameters = scene.start;
  LevenbergMarquardt().minimise(scene.signal, scene.first, parameters);
  return parameters;
}

Values minimisedByEigen(Scene const& scene) {
  Values parameters = scene.start;
  Testing::eigenRefinement(scene.signal, scene.first, parameters);
  return parameters;
}

/// The scene with every start value one ulp nearer to `limit`.
Scene withStartOneUlpToward(double limit, Scene scene) {
  for (double& value : scene.start) {
    value = std::nextafter(value, limit);
  }
  return scene;
}

void expectEqual(Values const& found, Values const& expected, std::string const& where) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t p = 0; p < found.size(); ++p) {
    EXPECT_NEAR(found[p], expected[p], Tolerance::sameSteps * std::max(1.0, std::abs(expected[p])))
        << where << " " << p;
  }
}

bool isSameEnd(Values const& found, Values const& expected) {
  return std::equal(found.begin(), found.end(), expected.begin(), [](double left, double right) {
    return std::abs(left - right) <= Tolerance::sameWildSteps * std::max(1.0, std::abs(right));
  });
}

TEST(EigenComparison, OrdinaryStartsGiveEqualEndsAndAsManyEvaluations) {
  LevenbergMarquardt minimiser;
  for (int seed = 0; seed < 600; ++seed) {
    Scene const scene = ordinaryScene(seed);
    Values expected = scene.start;
    Values found = scene.start;
    int const evaluations = Testing::eigenRefinement(scene.signal, scene.first, expected);
    EXPECT_GT(evaluations, 1);
    EXPECT_EQ(minimiser.minimise(scene.signal, scene.first, found), evaluations) << seed;
    expectEqual(found, expected, "scene " + std::to_string(seed));
  }
}

TEST(EigenComparison, DegenerateStartsGiveEqualEnds) {
  // Crossed signs, Gaussians outside the signal, two in one place, extreme widths.
  Scene scene = ordinaryScene(1);
  double const at = scene.start[1];
  std::vector<Values> const starts{{-300.0, at, 2.0},
                                   {300.0, -at, -2.0},
                                   {300.0, at + 500.0, 2.0},
                                   {300.0, at + 70.0, 2.0},
                                   {300.0, at, 2.0, 300.0, at, 2.0},
                                   {300.0, at, 1e-8},
                                   {300.0, at, 1e8},
                                   {0.0, at, 2.0},
                                   {0.0, 0.0, 0.0},
                                   {300.0, at, 2.0, 200.0, at + 300.0, 1.0}};
  for (std::size_t i = 0; i < starts.size(); ++i) {
    scene.start = starts[i];
    expectEqual(minimised(scene), minimisedByEigen(scene), "start " + std::to_string(i));
  }
}

/// Whether Eigen ends elsewhere than at `expected` when the start is moved up or down by one ulp.
bool dependsOnRounding(Scene const& scene, Values const& expected) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  return !isSameEnd(minimisedByEigen(withStartOneUlpToward(infinity, scene)), expected) ||
         !isSameEnd(minimisedByEigen(withStartOneUlpToward(-infinity, scene)), expected);
}

TEST(EigenComparison, WildStartsGiveDifferentEndsAsRarelyAsRoundingDoes) {
  // Steps far out of range, where the columns have rank one: the last digits of the start decide the end.
  constexpr int scenes = 8000;
  int differing = 0;
  int differingByRounding = 0;
  for (int seed = 0; seed < scenes; ++seed) {
    Scene const scene = wildScene(seed);
    Values const expected = minimisedByEigen(scene);
    differing += isSameEnd(minimised(scene), expected) ? 0 : 1;
    differingByRounding += dependsOnRounding(scene, expected) ? 1 : 0;
  }
  EXPECT_LE(differing, differingByRounding);
}

/// A wild scene, and another Gaussian `widths` from the last sample.
Scene sceneWithDistantGaussian(int seed, double widths) {
  Scene scene = wildScene(seed);
  double const width = 0.5 + 0.01 * seed;
  double const last = scene.first + static_cast<double>(scene.signal.size()) - 1.0;
  scene.start.insert(scene.start.end(), {300.0, last + widths * width, width});
  return scene;
}

TEST(EigenComparison, DistantGaussianDoesNotStopTheOthers) {
  // 38.5 widths from the nearest sample its derivatives are 0 or the smallest denormal numbers.
  int differing = 0;
  for (int seed = 0; seed < 400; ++seed) {
    Scene const scene = sceneWithDistantGaussian(seed, 38.5);
    differing += isSameEnd(minimised(scene), minimisedByEigen(scene)) ? 0 : 1;
  }
  EXPECT_LT(differing, 8);
}

std::vector<InstructionSet> availableSets() {
  std::vector<InstructionSet> sets;
  for (InstructionSet const set : {InstructionSet::Baseline, InstructionSet::Avx2}) {
    if (isAvailable(set)) {
      sets.push_back(set);
    }
  }
  return sets;
}

TEST(LevenbergMarquardt, EveryInstructionSetGivesTheSameDigits) {
  LevenbergMarquardt baseline(InstructionSet::Baseline);
  for (InstructionSet const set : availableSets()) {
    LevenbergMarquardt minimiser(set);
    for (int seed = 0; seed < 2000; ++seed) {
      for (Scene const& scene : {ordinaryScene(seed), wildScene(seed)}) {
        Values expected = scene.start;
        int const evaluations = baseline.minimise(scene.signal, scene.first, expected);
        Values found = scene.start;
        EXPECT_EQ(minimiser.minimise(scene.signal, scene.first, found), evaluations) << seed;
        EXPECT_EQ(std::memcmp(found.data(), expected.data(), sizeof(double) * expected.size()), 0) << seed;
      }
    }
  }
}

TEST(LevenbergMarquardt, DigitsDoNotDependOnPreviousFits) {
  LevenbergMarquardt used;
  for (int seed = 199; seed >= 0; --seed) {
    Scene const scene = ordinaryScene(seed);
    Values found = scene.start;
    used.minimise(scene.signal, scene.first, found);
    EXPECT_EQ(found, minimised(scene));
  }
}

TEST(LevenbergMarquardt, DoesNotAllocateAfterALargerFit) {
  LevenbergMarquardt minimiser;
  Scene const largest = ordinaryScene(5);
  Values parameters = largest.start;
  minimiser.minimise(largest.signal, largest.first, parameters);
  std::vector<Scene> scenes;
  for (int seed = 0; seed < 6; ++seed) {
    scenes.push_back(ordinaryScene(seed));
    ASSERT_LE(scenes.back().signal.size(), largest.signal.size());
  }
  std::size_t const before = Testing::heapAllocations();
  for (Scene& scene : scenes) {
    minimiser.minimise(scene.signal, scene.first, scene.start);
  }
  EXPECT_EQ(Testing::heapAllocations(), before);
}

}  // namespace
}  // namespace FullWaveform
