#include <fullwaveform/pulsefit/EchoFit.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::gaussianModel;
using Testing::waveform;
using Values = std::vector<double>;

constexpr double unlimited = 65536.0;

struct Fixture {
  explicit Fixture(PulseModel const& model) : table(model), fit(model, table, InstructionSet::Baseline) {}

  PulseTable table;
  EchoFit fit;
};

PulseModel modelWithScatter(double scatter) {
  PulseModel model = gaussianModel();
  model.scatter = scatter;
  return model;
}

Hypothesis hypothesisOf(double position, double amplitude) {
  Hypothesis hypothesis;
  hypothesis.baseline = 20.0;
  hypothesis.add({position, amplitude});
  return hypothesis;
}

Values copyOf(std::span<double const> values) {
  return {values.begin(), values.end()};
}

TEST(EchoFit, TheTruthLeavesTheRounding) {
  Fixture fixture(gaussianModel());
  fixture.fit.setSignal(waveform(80, {{33.3, 900.0}}), unlimited);
  Hypothesis truth = hypothesisOf(33.3, 900.0);
  fixture.fit.evaluate(truth);
  for (double const residual : fixture.fit.residual()) {
    EXPECT_LE(std::abs(residual), 0.501);
  }
}

TEST(EchoFit, WeightsFollowTheScatter) {
  Fixture fixture(modelWithScatter(0.01));
  fixture.fit.setSignal(waveform(80, {{33.3, 900.0}}), unlimited);
  Hypothesis truth = hypothesisOf(33.3, 900.0);
  fixture.fit.evaluate(truth);
  EXPECT_DOUBLE_EQ(fixture.fit.weights()[33], 1.0 / (4.0 + 81.0));
  EXPECT_DOUBLE_EQ(fixture.fit.weights()[5], 0.25);
  EXPECT_DOUBLE_EQ(fixture.fit.weights()[70], 0.25);
}

TEST(EchoFit, ClippedSamplesThatTheModelExceedsHaveNoWeight) {
  Fixture fixture(gaussianModel());
  fixture.fit.setSignal(waveform(80, {{40.0, 1000.0}}, 255.0), 255.0);
  ASSERT_EQ(fixture.fit.clipped().size(), 5U);  // 38 to 42: 1000 exp(-x^2 / 2 width^2) >= 235 for |x| <= 2.89
  Hypothesis high = hypothesisOf(40.0, 1000.0);
  fixture.fit.evaluate(high);
  EXPECT_EQ(fixture.fit.weights()[40], 0.0);
  EXPECT_EQ(fixture.fit.residual()[40], 0.0);
  EXPECT_EQ(fixture.fit.weights()[30], 0.25);
  Hypothesis low = hypothesisOf(40.0, 100.0);
  fixture.fit.evaluate(low);
  EXPECT_EQ(fixture.fit.weights()[40], 0.25);
  EXPECT_NEAR(fixture.fit.residual()[40], 135.0, 1e-3);
}

TEST(EchoFit, ASignalOfAnotherLengthIsEvaluatedAnew) {
  PulseModel const model = modelWithScatter(0.005);
  Fixture reused(model);
  Fixture fresh(model);
  Hypothesis truth = hypothesisOf(33.3, 900.0);
  reused.fit.setSignal(waveform(40, {{33.3, 900.0}}), unlimited);
  reused.fit.evaluate(truth);
  for (Fixture* const fixture : {&reused, &fresh}) {
    fixture->fit.setSignal(waveform(90, {{33.3, 700.0}}), unlimited);
    fixture->fit.evaluate(truth);
  }
  EXPECT_EQ(copyOf(reused.fit.residual()), copyOf(fresh.fit.residual()));
  EXPECT_EQ(copyOf(reused.fit.weights()), copyOf(fresh.fit.weights()));
}

TEST(EchoFit, RefineReachesAMinimumOfTheEnergy) {
  Fixture fixture(modelWithScatter(0.005));
  fixture.fit.setSignal(waveform(80, {{33.3, 900.0}, {37.8, 400.0}}), unlimited);
  Hypothesis refined = hypothesisOf(33.0, 800.0);
  refined.add({38.0, 500.0});
  fixture.fit.refine(refined);
  EXPECT_TRUE(refined.hasConverged);
  EXPECT_NEAR(refined.echoes[0].position, 33.3, 0.02);
  EXPECT_NEAR(refined.echoes[1].position, 37.8, 0.02);
  for (double const step : {-0.1, 0.1}) {
    Hypothesis moved = refined;
    moved.echoes[1].position += step;
    fixture.fit.evaluate(moved);
    EXPECT_GT(moved.energy, refined.energy);
  }
}

TEST(EchoFit, ScatterDoesNotLowerTheAmplitude) {
  // A fit that lowered ln s^2 by a smaller amplitude would lose 20 x 0.02^2 / 3 = 0.3 % of it.
  PulseModel model = modelWithScatter(0.02);
  model.varianceSpread = 1e-3;  // a wider pulse would be lower
  model.widening = 0.0;
  Fixture fixture(model);
  fixture.fit.setSignal(waveform(80, {{40.2, 40000.0}}), unlimited);
  Hypothesis refined = hypothesisOf(40.1, 39500.0);
  fixture.fit.refine(refined);
  EXPECT_NEAR(refined.echoes[0].amplitude, 40000.0, 20.0);
}

}  // namespace
}  // namespace FullWaveform
