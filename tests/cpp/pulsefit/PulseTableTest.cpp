#include <fullwaveform/pulsefit/PulseTable.h>

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "pulsefit/TestPulses.h"

namespace FullWaveform {
namespace {

using Testing::gaussian;
using Testing::gaussianModel;
using Testing::pulseWidth;

struct Values {
  double value;
  double byLag;
  double byVariance;
};

/// The series of a place at one of its samples.
Values valuesAt(PulseTable::Place const& place, int index) {
  auto const& c = place.coefficients;
  auto const row = [&](std::size_t order) { return place.rows[order][index]; };
  Values values{};
  for (std::size_t order = 0; order < PulseTable::derivatives; ++order) {
    values.value += c[order] * row(order);
    values.byLag += order + 1 < PulseTable::derivatives ? c[order] * row(order + 1) : 0.0;
    values.byVariance += order + 2 < PulseTable::derivatives ? 0.5 * c[order] * row(order + 2) : 0.0;
  }
  return values;
}

/// A Gaussian of variance s^2 and height 1, convolved with one of variance v, in closed form.
Values widenedGaussian(double x, double variance) {
  double const total = pulseWidth * pulseWidth + variance;
  double const value = pulseWidth / std::sqrt(total) * gaussian(x, std::sqrt(total));
  return {value, -x / total * value, 0.5 * (x * x / total - 1.0) / total * value};
}

TEST(PulseTable, InterpolatesBetweenPhasesToTheFourthOrder) {
  // At a node of the variance only the rest of the phase is left, at most 1/32 of a sample: the fifth-order
  // term is 2.4e-10 of a derivative of at most 6.
  PulseTable const table(gaussianModel());
  for (double const position : {30.0, 30.03125, 30.02, 29.97, 30.5 - 0.03}) {
    PulseTable::Place const place = table.placeAt(position, PulseTable::minVariance);
    for (int i = 0; i < place.count; ++i) {
      Values const expected = widenedGaussian(place.first + i - position, PulseTable::minVariance);
      EXPECT_NEAR(valuesAt(place, i).value, expected.value, 1e-7) << position;
    }
  }
}

TEST(PulseTable, WidensAGaussianAsTheClosedForm) {
  PulseTable const table(gaussianModel());
  std::mt19937 random(1);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  for (int run = 0; run < 2000; ++run) {
    double const position = 30.0 + uniform(random);
    double const variance = -0.4 + 10.0 * uniform(random);
    PulseTable::Place const place = table.placeAt(position, variance);
    ASSERT_LT(place.first, 25);
    ASSERT_GT(place.first + place.count, 36);
    for (int i = 0; i < place.count; ++i) {
      Values const expected = widenedGaussian(place.first + i - position, variance);
      Values const found = valuesAt(place, i);
      ASSERT_NEAR(found.value, expected.value, 2e-5) << position << " " << variance;
      // The omitted term is the fifth derivative, 6 / width^5 at most, times half the square of half the
      // variance to the next node, 0.025 (width^2): 3e-4 at a width of 1.7 samples.
      ASSERT_NEAR(found.byLag, expected.byLag, 3e-4) << position << " " << variance;
      ASSERT_NEAR(found.byVariance, expected.byVariance, 5e-4) << position << " " << variance;
    }
  }
}

TEST(PulseTable, IsZeroAfterItsSamplesAndSmallOutside) {
  PulseTable const table(gaussianModel());
  PulseTable::Place const place = table.placeAt(12.3, 0.0);
  for (double const* const row : place.rows) {
    for (int i = place.count; i < place.count + 8; ++i) {
      EXPECT_EQ(row[i], 0.0);
    }
  }
  EXPECT_LT(widenedGaussian(place.first - 1 - 12.3, 0.0).value, 1e-6);
  EXPECT_LT(widenedGaussian(place.first + place.count - 12.3, 0.0).value, 1e-6);
}

TEST(PulseTable, ShapeIsThatOfTheWidenedGaussian) {
  PulseTable const table(gaussianModel());
  for (double const variance : {-0.39, -0.1, 0.0, 0.013, 0.5, 3.3, 11.0, 24.9}) {
    double const total = pulseWidth * pulseWidth + variance;
    PulseTable::Shape const shape = table.shapeAt(variance);
    EXPECT_NEAR(shape.peak, pulseWidth / std::sqrt(total), 1e-3) << variance;
    EXPECT_NEAR(shape.peakSlope, -0.5 * pulseWidth / std::pow(total, 1.5), 0.02) << variance;
    EXPECT_NEAR(shape.fwhm, 4.0 * std::sqrt(total) / pulseWidth, 4e-3) << variance;
    EXPECT_NEAR(shape.fwhmSlope, 2.0 / pulseWidth / std::sqrt(total), 0.06) << variance;
  }
}

/// Rises as a Gaussian and falls exponentially, sampled finely.
PulseModel skewedModel() {
  PulseModel model;
  model.firstLag = -10.0;
  for (int i = 0; i <= 50 * 16; ++i) {
    double const x = model.firstLag + i / 16.0;
    // The convolution of a Gaussian of variance 1 with exp(-x/2).
    model.pulse.push_back(std::exp(0.125 - 0.5 * x) * std::erfc((0.5 - x) / std::sqrt(2.0)));
  }
  return model;
}

TEST(PulseTable, WidensASkewedPulseAsTheConvolution) {
  PulseModel const model = skewedModel();
  PulseTable const table(model);
  double const maximum = *std::max_element(model.pulse.begin(), model.pulse.end());
  double const variance = 2.0;
  PulseTable::Place const place = table.placeAt(40.375, variance);
  for (int i = 0; i < place.count; ++i) {
    double const x = place.first + i - 40.375;
    double expected = 0.0;
    for (double u = -9.0; u < 9.0; u += 1.0 / 64.0) {  // the integral with the density of the Gaussian
      double const y = x - u;
      expected += std::exp(0.125 - 0.5 * y) * std::erfc((0.5 - y) / std::sqrt(2.0)) *
                  gaussian(u, std::sqrt(variance)) / std::sqrt(2.0 * 3.14159265358979 * variance) / 64.0;
    }
    EXPECT_NEAR(valuesAt(place, i).value, expected / maximum, 1e-4) << x;
  }
}

TEST(PulseTable, SamplesOfTheUnwidenedPulse) {
  PulseTable const table(gaussianModel());
  std::vector<double> const samples = table.samplesAt(-0.5, -2, 3);
  ASSERT_EQ(samples.size(), 6U);
  for (int i = 0; i < 6; ++i) {
    EXPECT_NEAR(samples[static_cast<std::size_t>(i)], gaussian(i - 2 - 0.5), 1e-5);
  }
}

}  // namespace
}  // namespace FullWaveform
