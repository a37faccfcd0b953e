#include <fullwaveform/model/Peak.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace FullWaveform {
namespace {

static_assert(std::is_trivially_copyable_v<Peak> && std::is_standard_layout_v<Peak>);
static_assert(sizeof(TYPE) == 4 && sizeof(QUALITY) == 4);
static_assert(std::is_same_v<decltype(Peak::amplitude), float>);
static_assert(std::is_same_v<decltype(Peak::idx), double>);
static_assert(std::is_same_v<decltype(Peak::time), double>);
static_assert(std::is_same_v<decltype(Peak::std), double>);
static_assert(std::is_same_v<decltype(Peak::classification), unsigned char>);
static_assert(std::is_same_v<decltype(Peak::reflectance), float>);

Peak peakOf(double amplitude, double idx, double time = 0.0) {
  return {amplitude, idx, time, RAW, GOOD, 1.9, 0, -3.5F};
}

TEST(Peak, FieldsKeepTheirOrderWithQualityBeforeType) {
  EXPECT_EQ(offsetof(Peak, amplitude), 0U);
  EXPECT_EQ(offsetof(Peak, idx), 8U);
  EXPECT_EQ(offsetof(Peak, time), 16U);
  EXPECT_EQ(offsetof(Peak, quality), 24U);
  EXPECT_EQ(offsetof(Peak, type), 28U);
  EXPECT_EQ(offsetof(Peak, std), 32U);
  EXPECT_EQ(offsetof(Peak, classification), 40U);
  EXPECT_EQ(offsetof(Peak, reflectance), 44U);
  EXPECT_EQ(sizeof(Peak), 48U);
}

TEST(Peak, ConstructorTakesTypeBeforeQuality) {
  Peak const peak(1.5, 2.5, 3.5, RICHARDSON_LUCY, AFTERPULS, 4.5, 6, 7.5F);
  EXPECT_EQ(peak.amplitude, 1.5F);
  EXPECT_EQ(peak.idx, 2.5);
  EXPECT_EQ(peak.time, 3.5);
  EXPECT_EQ(peak.type, RICHARDSON_LUCY);
  EXPECT_EQ(peak.quality, AFTERPULS);
  EXPECT_EQ(peak.std, 4.5);
  EXPECT_EQ(peak.classification, 6);
  EXPECT_EQ(peak.reflectance, 7.5F);
}

TEST(Peak, EnumeratorsHaveFixedValues) {
  EXPECT_EQ(UNBORN, 0U);
  EXPECT_EQ(RAW, 1U);
  EXPECT_EQ(GAUSS_3POINTS, 2U);
  EXPECT_EQ(GAUSS_DECOMPOSITION_1, 3U);
  EXPECT_EQ(GAUSS_DECOMPOSITION_2, 4U);
  EXPECT_EQ(RICHARDSON_LUCY, 5U);
  EXPECT_EQ(ONLINE_OWP, 6U);
  EXPECT_EQ(FLAW, 7U);
  EXPECT_EQ(GOOD, 0U);
  EXPECT_EQ(AFTERPULS, 1U);
  EXPECT_EQ(EXCEEDS_RANGE, 2U);
}

TEST(ConvertType, EveryTypeHasItsText) {
  EXPECT_EQ(convertType(UNBORN), "Unborn peak");
  EXPECT_EQ(convertType(UNBORN).size(), 11U);
  EXPECT_EQ(convertType(RAW), "Raw peak from signal");
  EXPECT_EQ(convertType(GAUSS_3POINTS), "Fitting gauss curve with three points");
  EXPECT_EQ(convertType(GAUSS_DECOMPOSITION_1), "First loop of gaussian decomposition");
  EXPECT_EQ(convertType(GAUSS_DECOMPOSITION_2), "Second loop of gaussian decomposition");
  EXPECT_EQ(convertType(RICHARDSON_LUCY), "Richardson-Lucy deconvolution");
  EXPECT_EQ(convertType(ONLINE_OWP), "Online Waveform Processed points (Riegl-OWP)");
  EXPECT_EQ(convertType(FLAW), "Flaw echo/noise");
}

TEST(ConvertType, AnUnknownTypeHasATrailingBlank) {
  for (std::uint32_t const value : {8U, 9U, 1000U, 4294967295U}) {
    EXPECT_EQ(convertType(static_cast<TYPE>(value)), "Unknown ");
  }
}

TEST(Peak, GetIdxAddsTheOffset) {
  Peak const peak = peakOf(1.0, 57.25);
  EXPECT_EQ(peak.getIdx(0.0), 57.25);
  EXPECT_EQ(peak.getIdx(100.5), 157.75);
}

TEST(Peak, GetIdxAsTimeMultipliesAfterAddingTheOffset) {
  Peak const peak = peakOf(1.0, 57.3);
  for (double const offset : {0.0, 0.1, 12.7}) {
    EXPECT_EQ(peak.getIdxAsTime(1e-9, offset), peak.getIdx(offset) * 1e-9);
  }
  EXPECT_EQ(peakOf(1.0, 3.0).getIdxAsTime(0.25, 1.0), 1.0);
}

TEST(Peak, AmplitudeIsRoundedToSinglePrecision) {
  EXPECT_EQ(peakOf(0.1, 0.0).amplitude, 0.1F);
  EXPECT_EQ(peakOf(16777217.0, 0.0).amplitude, 16777216.0F);  // tie, to even
  EXPECT_EQ(peakOf(16777219.0, 0.0).amplitude, 16777220.0F);
}

TEST(PeakPrint, WorkedExample) {
  EXPECT_EQ(peakOf(812.0, 57.25).print(),
            "\t\t\ta=812 idx=57.25 time=0[m] std=1.9 type=Raw peak from signal Qual=GOOD Refl=-3.5\n");
}

TEST(PeakPrint, TimeIsShownAsOneWayRange) {
  // 0.5 s x 149854128 m/s
  EXPECT_NE(peakOf(1.0, 2.0, 0.5).print().find(" time=74927064[m] std="), std::string::npos);
  EXPECT_NE(peakOf(1.0, 2.0, -1.0).print().find(" time=-149854128[m] std="), std::string::npos);
}

TEST(PeakPrint, SinglePrecisionFieldsHaveTheirShortestForm) {
  Peak peak = peakOf(0.1, 0.1);
  peak.reflectance = 0.3F;
  EXPECT_EQ(peak.print(),
            "\t\t\ta=0.1 idx=0.1 time=0[m] std=1.9 type=Raw peak from signal Qual=GOOD Refl=0.3\n");
}

TEST(PeakPrint, EveryQualityHasItsText) {
  auto const shows = [](std::uint32_t quality, std::string const& text) {
    Peak peak = peakOf(1.0, 1.0);
    peak.quality = static_cast<QUALITY>(quality);
    return peak.print().find(" Qual=" + text + " Refl=") != std::string::npos;
  };
  EXPECT_TRUE(shows(0, "GOOD"));
  EXPECT_TRUE(shows(1, "AFTERPULS"));
  EXPECT_TRUE(shows(2, "Exceeds Range"));
  EXPECT_TRUE(shows(3, "Unknown"));
  EXPECT_TRUE(shows(4294967295U, "Unknown"));
}

TEST(PeakPrint, AnUnknownTypeIsFollowedByTwoBlanks) {
  Peak peak = peakOf(1.0, 1.0);
  peak.type = static_cast<TYPE>(8);
  EXPECT_NE(peak.print().find(" type=Unknown  Qual=GOOD"), std::string::npos);
}

TEST(PeakPrint, NonFiniteFieldsArePrinted) {
  Peak peak = peakOf(1.0, std::numeric_limits<double>::infinity());
  peak.std = std::numeric_limits<double>::quiet_NaN();
  std::string const text = peak.print();
  EXPECT_NE(text.find(" idx=inf "), std::string::npos);
  EXPECT_TRUE(text.find(" std=nan ") != std::string::npos || text.find(" std=-nan ") != std::string::npos);
}

}  // namespace
}  // namespace FullWaveform
