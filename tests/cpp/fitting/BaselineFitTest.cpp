#include <cmath>
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

#include <fullwaveform/fitting/BaselineFit.h>

namespace FullWaveform {
namespace {

constexpr double baseline = 20.0;  // counts

struct Gaussian {
  double position;
  double height;
  double sigma;
};

std::vector<unsigned short> waveformOf(std::vector<Gaussian> const& gaussians, std::size_t length = 80) {
  std::vector<unsigned short> samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    double value = baseline;
    for (auto const& [position, height, sigma] : gaussians) {
      double const off = (static_cast<double>(i) - position) / sigma;
      value += height * std::exp(-0.5 * off * off);
    }
    samples[i] = static_cast<unsigned short>(std::lround(value));
  }
  return samples;
}

/// The Gaussians after the fit.
std::vector<Gaussian> refined(std::vector<unsigned short> const& samples, std::vector<Gaussian> gaussians) {
  std::vector<double> positions;
  std::vector<double> heights;
  std::vector<double> sigmas;
  for (auto const& [position, height, sigma] : gaussians) {
    positions.push_back(position);
    heights.push_back(height);
    sigmas.push_back(sigma);
  }
  BaselineFit().refine(samples, baseline, {.positions = positions, .heights = heights, .sigmas = sigmas});
  for (std::size_t k = 0; k < gaussians.size(); ++k) {
    gaussians[k] = {positions[k], heights[k], sigmas[k]};
  }
  return gaussians;
}

TEST(BaselineFit, AnEchoThatIsTooHighAndTooNarrowBecomesThatOfTheWaveform) {
  // A decomposition above a threshold of 10 % of the height gives a width of 0.88 and a height of 1.02 times
  // the true.
  for (double const position : {30.0, 30.37, 30.5}) {
    auto const samples = waveformOf({{position, 800.0, 1.6}});
    auto const found = refined(samples, {{position, 1.02 * 800.0, 0.88 * 1.6}});
    EXPECT_EQ(found[0].position, position);
    EXPECT_NEAR(found[0].height, 800.0, 1.0);  // samples are rounded to counts
    EXPECT_NEAR(found[0].sigma, 1.6, 0.002);
  }
}

TEST(BaselineFit, EchoesThatOverlapAreSeparated) {
  auto const samples = waveformOf({{30.0, 900.0, 2.0}, {35.0, 400.0, 1.5}, {41.0, 700.0, 3.0}});
  auto const found = refined(samples, {{30.0, 930.0, 1.8}, {35.0, 430.0, 1.3}, {41.0, 720.0, 2.7}});
  EXPECT_NEAR(found[0].height, 900.0, 2.0);
  EXPECT_NEAR(found[1].height, 400.0, 2.0);
  EXPECT_NEAR(found[2].height, 700.0, 2.0);
  EXPECT_NEAR(found[0].sigma, 2.0, 0.02);
  EXPECT_NEAR(found[1].sigma, 1.5, 0.02);
  EXPECT_NEAR(found[2].sigma, 3.0, 0.02);
}

TEST(BaselineFit, TheHeightIsThatOfTheWaveformWhereTheEchoIsNoGaussian) {
  // A parabola of height 600, 12 samples wide at its foot.
  std::vector<unsigned short> samples(60, 20);
  for (int i = -5; i <= 5; ++i) {
    samples[static_cast<std::size_t>(30 + i)] =
        static_cast<unsigned short>(std::lround(20.0 + 600.0 * (1.0 - i * i / 36.0)));
  }
  EXPECT_NEAR(refined(samples, {{30.0, 640.0, 2.5}})[0].height, 600.0, 3.0);
}

TEST(BaselineFit, AWidthOutOfBoundsIsKept) {
  // A level plateau has no width.
  std::vector<unsigned short> const samples(60, 220);
  EXPECT_EQ(refined(samples, {{30.0, 180.0, 1.5}})[0].sigma, 1.5);
}

TEST(BaselineFit, EchoesAtTheEndsAndWaveformsWithoutSamplesAreHarmless) {
  auto const samples = waveformOf({{1.0, 500.0, 1.6}});
  auto const found = refined(samples, {{1.0, 510.0, 1.4}, {-40.0, 30.0, 1.0}, {400.0, 30.0, 1.0}});
  EXPECT_NEAR(found[0].height, 500.0, 2.0);
  EXPECT_EQ(found[1].sigma, 1.0);
  EXPECT_EQ(refined({}, {{3.0, 30.0, 1.0}})[0].height, 30.0);
  EXPECT_TRUE(std::isfinite(refined(samples, {{1.0, 510.0, 0.0}})[0].height));
}

}  // namespace
}  // namespace FullWaveform
