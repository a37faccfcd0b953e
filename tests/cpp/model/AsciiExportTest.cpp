#include <fullwaveform/model/AsciiExport.h>

#include <limits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(AsciiLine, HasLabelShortestNumbersAndValue) {
  Peak const peak(0.1, 1e-9, 7.0, GAUSS_3POINTS, GOOD, 1.9, 3, -2.5F);
  EXPECT_EQ(asciiLine(peak, "shot 7", 383661.97316074), "shot 7 0.1 1e-09 1.9 383661.97316074\n");
}

TEST(AsciiLine, AnEmptyLabelKeepsItsBlankAndNaNIsPrinted) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  Peak const peak(812.0, 57.25, 0.0, RAW, GOOD, nan, 0, 0.0F);
  EXPECT_EQ(asciiLine(peak, "", -0.5), " 812 57.25 nan -0.5\n");
}

}  // namespace
}  // namespace FullWaveform
