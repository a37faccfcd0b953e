#include <fullwaveform/pulsefit/GaussianDerivatives.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

using Values = std::vector<double>;

class GaussianDerivativesTest : public testing::TestWithParam<InstructionSet> {};

INSTANTIATE_TEST_SUITE_P(InstructionSets, GaussianDerivativesTest,
                         testing::Values(InstructionSet::Baseline, InstructionSet::Avx2));

TEST_P(GaussianDerivativesTest, AreTheSameOnAllInstructionSetsAndThoseOfAGaussian) {
  if (!isAvailable(GetParam())) {
    GTEST_SKIP() << "this machine does not have the instruction set";
  }
  constexpr std::size_t count = 13;
  auto const columnsOf = [](InstructionSet set) {
    Values values(48, 7.0);
    differentiateGaussian({5.3, 120.0, 1.7}, count, {values.data(), values.data() + 16, values.data() + 32},
                          set);
    return values;
  };
  Values const found = columnsOf(GetParam());
  EXPECT_EQ(found, columnsOf(InstructionSet::Baseline));
  for (std::size_t i = 0; i < 16; ++i) {
    double const x = static_cast<double>(i) - 5.3;
    double const shape = i < count ? std::exp(-0.5 * x * x / 2.89) : 0.0;
    EXPECT_NEAR(found[i], shape, 1e-15);
    EXPECT_NEAR(found[16 + i], 120.0 * shape * x / 2.89, 1e-12);
    EXPECT_NEAR(found[32 + i], 120.0 * shape * x * x / 4.913, 1e-12);
  }
}

}  // namespace
}  // namespace FullWaveform
