#include <fullwaveform/fitting/SampleLogarithm.h>

#include <cmath>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(SampleLogarithm, IsThatOfTheStandardLibraryForEverySample) {
  for (int sample = 0; sample <= 65535; ++sample) {
    EXPECT_EQ(logarithmOf(static_cast<unsigned short>(sample)), std::log(static_cast<double>(sample)));
  }
}

}  // namespace
}  // namespace FullWaveform
