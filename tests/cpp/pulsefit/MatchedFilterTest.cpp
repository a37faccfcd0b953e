#include <fullwaveform/pulsefit/MatchedFilter.h>

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

Candidate candidateIn(Testing::Counts const& samples) {
  PulseModel const model = Testing::gaussianModel();
  PulseTable const table(model);
  EchoFit fit(model, table, InstructionSet::Baseline);
  fit.setSignal(samples, 65536.0);
  Hypothesis empty;
  empty.baseline = model.baseline;
  fit.evaluate(empty);
  return MatchedFilter(table, InstructionSet::Baseline).best(fit);
}

TEST(MatchedFilter, FindsAnEchoBetweenSamples) {
  double const width = Testing::pulseWidth;
  double const square = 1000.0 * 1000.0 * width * std::sqrt(std::numbers::pi) / 4.0;  // noise of 2 counts
  for (double const position : {33.0, 33.25, 33.5, 33.87}) {
    Candidate const found = candidateIn(Testing::waveform(80, {{position, 1000.0}, {60.0, 500.0}}));
    EXPECT_NEAR(found.position, position, 0.02);
    EXPECT_NEAR(found.amplitude, 1000.0, 5.0);
    EXPECT_NEAR(found.square, square, 0.01 * square);
  }
}

TEST(MatchedFilter, TheBaselineHasNoCandidate) {
  EXPECT_EQ(candidateIn(Testing::Counts(40, 20)).square, 0.0);
  EXPECT_EQ(candidateIn(Testing::Counts(40, 15)).square, 0.0);
  EXPECT_EQ(candidateIn(Testing::Counts(2, 500)).square, 0.0);
}

}  // namespace
}  // namespace FullWaveform
