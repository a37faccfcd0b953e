#include <fullwaveform/text/Number.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

TEST(Number, WholeValuesHaveNoDecimalPoint) {
  EXPECT_EQ(shortestText(0.0), "0");
  EXPECT_EQ(shortestText(200.0), "200");
  EXPECT_EQ(shortestText(-3.0F), "-3");
  EXPECT_EQ(shortestText(-0.0), "-0");
}

TEST(Number, DoubleHasTheShortestDigitsThatReadBack) {
  EXPECT_EQ(shortestText(8.6), "8.6");
  EXPECT_EQ(shortestText(0.1), "0.1");
  EXPECT_EQ(shortestText(0.1 + 0.2), "0.30000000000000004");
  EXPECT_EQ(shortestText(0.1373470495519926), "0.1373470495519926");
  EXPECT_EQ(shortestText(0.009999999776482582), "0.009999999776482582");
}

TEST(Number, FloatIsNotWidened) {
  EXPECT_EQ(shortestText(0.1F), "0.1");
  EXPECT_EQ(shortestText(static_cast<double>(0.1F)), "0.10000000149011612");
  EXPECT_EQ(shortestText(16777216.0F), "16777216");
}

TEST(Number, ShorterNotationIsUsedAndFixedAtEqualLength) {
  EXPECT_EQ(shortestText(10000.0), "10000");
  EXPECT_EQ(shortestText(100000.0), "1e+05");
  EXPECT_EQ(shortestText(0.001), "0.001");
  EXPECT_EQ(shortestText(0.0001), "1e-04");
  EXPECT_EQ(shortestText(299708256.0), "299708256");
  EXPECT_EQ(shortestText(6.673156177586246e-09), "6.673156177586246e-09");
}

TEST(Number, ExtremesFit) {
  EXPECT_EQ(shortestText(-std::numeric_limits<double>::max()), "-1.7976931348623157e+308");
  EXPECT_EQ(shortestText(-std::numeric_limits<double>::min()), "-2.2250738585072014e-308");
  EXPECT_EQ(shortestText(std::numeric_limits<double>::denorm_min()), "5e-324");
  EXPECT_EQ(shortestText(std::numeric_limits<float>::max()), "3.4028235e+38");
}

TEST(Number, NonFiniteValuesAreNanAndInf) {
  double const NaN = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(shortestText(NaN) == "nan" || shortestText(NaN) == "-nan");
  EXPECT_EQ(shortestText(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(shortestText(-std::numeric_limits<float>::infinity()), "-inf");
}

TEST(Number, LocaleIsIgnored) {
  std::string const former = std::setlocale(LC_ALL, nullptr);
  for (char const* locale : {"de_AT.UTF-8", "de_DE.UTF-8", "C.UTF-8"}) {
    std::setlocale(LC_ALL, locale);  // no effect if not installed
    EXPECT_EQ(shortestText(1234567.5), "1234567.5");
  }
  std::setlocale(LC_ALL, former.c_str());
}

TEST(Number, SignedTextIsAPlainDecimal) {
  EXPECT_EQ(signedText(std::int32_t{0}), "0");
  EXPECT_EQ(signedText(std::int32_t{-17}), "-17");
  EXPECT_EQ(signedText(std::int32_t{2147483647}), "2147483647");
}

TEST(Number, UnsignedValuesFromTwoToThe31PrintNegative) {
  EXPECT_EQ(signedText(std::uint32_t{2147483647}), "2147483647");
  EXPECT_EQ(signedText(std::uint32_t{2147483648}), "-2147483648");
  EXPECT_EQ(signedText(std::uint32_t{4294967295}), "-1");
}

}  // namespace
}  // namespace FullWaveform
