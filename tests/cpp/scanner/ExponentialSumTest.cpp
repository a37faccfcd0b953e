#include <fullwaveform/scanner/ExponentialSum.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Complex = std::complex<double>;

double const halving = -std::numbers::ln2;
double const quarterTurn = 0.5 * std::numbers::pi;

void expectNear(std::vector<double> const& values, std::vector<double> const& expected) {
  ASSERT_EQ(values.size(), expected.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(values[i], expected[i], 1e-14) << "value " << i;
  }
}

std::vector<double> synthesised(std::vector<Complex> const& a, std::vector<Complex> const& b, double dt,
                                std::size_t length) {
  std::vector<double> wave(length);
  synthesiseSystemWave(a, b, dt, wave);
  return wave;
}

TEST(SynthesiseSystemWave, RealExponentDecays) {
  expectNear(synthesised({8.0}, {halving / 1e-9}, 1e-9, 4), {8.0, 4.0, 2.0, 1.0});
}

TEST(SynthesiseSystemWave, ImaginaryExponentOscillates) {
  expectNear(synthesised({2.0}, {Complex(0.0, quarterTurn / 1e-9)}, 1e-9, 5), {2.0, 0.0, -2.0, 0.0, 2.0});
}

TEST(SynthesiseSystemWave, ImaginaryCoefficientTurnsThePhase) {
  // Re(j exp(j x)) = -sin x
  expectNear(synthesised({Complex(0.0, 1.0)}, {Complex(0.0, quarterTurn / 1e-9)}, 1e-9, 4),
             {0.0, -1.0, 0.0, 1.0});
}

TEST(SynthesiseSystemWave, TermsAdd) {
  // 4 (1/2)^i and cos and -sin of quarter turns.
  expectNear(
      synthesised({4.0, Complex(1.0, 1.0)}, {halving / 1e-9, Complex(0.0, quarterTurn / 1e-9)}, 1e-9, 4),
      {5.0, 1.0, 0.0, 1.5});
}

TEST(NormaliseToMaximum, LargestBecomesOne) {
  std::vector<double> wave{2.0, -4.0, 8.0, 1.0};
  normaliseToMaximum(wave);
  EXPECT_EQ(wave, (std::vector<double>{0.25, -0.5, 1.0, 0.125}));
}

TEST(NormaliseToMaximum, WithoutPositiveValuesIsNotGuarded) {
  std::vector<double> wave{-2.0, -4.0};
  normaliseToMaximum(wave);
  EXPECT_EQ(wave, (std::vector<double>{1.0, 2.0}));
  std::vector<double> zeros{0.0};
  normaliseToMaximum(zeros);
  EXPECT_TRUE(std::isnan(zeros[0]));
  std::vector<double> none;
  normaliseToMaximum(none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
}  // namespace FullWaveform
