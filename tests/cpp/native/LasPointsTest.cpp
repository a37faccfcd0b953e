#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <native/bytes/CopyRows.h>
#include <native/las/PacketSelection.h>
#include <native/las/PointColumns.h>
#include <native/las/PointSurvey.h>

namespace Las {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t size9 = 59;
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

template <class Value>
void put(Bytes& record, std::size_t offset, Value value) {
  std::memcpy(record.data() + offset, &value, sizeof value);
}

/// A point of format 9 with a packet of 10 bytes.
Bytes point(double time, int descriptor, std::uint64_t offset, std::uint32_t bytes = 10) {
  Bytes record(size9);
  put(record, 22, time);
  put(record, 30, static_cast<std::uint8_t>(descriptor));
  put(record, 31, offset);
  put(record, 39, bytes);
  return record;
}

Bytes joined(std::vector<Bytes> const& records) {
  Bytes all;
  for (Bytes const& record : records) {
    all.insert(all.end(), record.begin(), record.end());
  }
  return all;
}

/// Descriptors 1 and 2 have packets of 10 bytes, descriptor 3 of 20; the data have 200 bytes.
PacketRules rules(bool withoutTimes = false) {
  PacketRules rules;
  rules.dataBytes = 200;
  rules.headerBytes = 60;
  rules.packetBytes[1] = rules.packetBytes[2] = 10;
  rules.packetBytes[3] = 20;
  rules.sampleCounts[1] = rules.sampleCounts[2] = 10;
  rules.sampleCounts[3] = 20;
  rules.maxSamples = 15;
  rules.withoutTimes = withoutTimes;
  return rules;
}

using Indices = std::vector<std::int64_t>;
using Owners = std::vector<std::int64_t>;

PointList listOf(Bytes const& records, Indices const& indices = {0},
                 PointLayout const& layout = PointLayout::of(9, size9)) {
  PointList points(layout);
  points.add(records, indices);
  return points;
}

TEST(PacketSelector, FirstPointOfAPacketStandsForItsWaveform) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  Selection const found =
      selector.select(joined({point(1.0, 1, 80), point(1.0, 2, 60), point(1.0, 1, 80), point(2.0, 1, 100)}));
  EXPECT_EQ(found.waveforms, (Indices{0, 1, 3}));
  EXPECT_EQ(found.times, (std::vector<double>{1.0, 1.0, 2.0}));
  EXPECT_EQ(found.pulses, (Indices{0, 2, 1, 3}));
  EXPECT_EQ(found.owners, (Owners{0, 0, 1, 2}));
  EXPECT_EQ(found.sharing, 1U);
  EXPECT_TRUE(found.faults.empty());
}

TEST(PacketSelector, PacketsOfEarlierPointsAreNotSelectedAgain) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  selector.select(point(1.0, 1, 70));
  Selection const found = selector.select(joined({point(2.0, 1, 70), point(2.0, 1, 80), point(2.0, 1, 70)}));
  EXPECT_EQ(found.waveforms, (Indices{1}));
  EXPECT_EQ(found.sharing, 2U);
}

// The search changes at the first packet that precedes an earlier one.
TEST(PacketSelector, PacketsMayDescendAfterManyThatAscend) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  Selection const found =
      selector.select(joined({point(1.0, 1, 60), point(1.0, 1, 80), point(1.0, 1, 90), point(1.0, 1, 100),
                              point(1.0, 1, 110), point(1.0, 1, 120), point(1.0, 1, 60), point(1.0, 1, 70),
                              point(1.0, 1, 80), point(1.0, 1, 130), point(1.0, 1, 70)}));
  EXPECT_EQ(found.waveforms, (Indices{0, 1, 2, 3, 4, 5, 7, 9}));
  EXPECT_EQ(found.pulses, (Indices{0, 6, 1, 8, 2, 3, 4, 5, 7, 10, 9}));
  EXPECT_EQ(found.sharing, 3U);
}

TEST(PacketSelector, FaultsAreNamedInTheOrderOfTheChecks) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  Bytes bent = point(1.0, 1, 170);
  put(bent, 47, std::numeric_limits<float>::infinity());
  Selection const found =
      selector.select(joined({point(1.0, 1, 59), point(1.0, 1, 191), point(1.0, 1, ~std::uint64_t{0}),
                              point(1.0, 1, 100), point(1.0, 2, 103), point(1.0, 1, 120, 11),
                              point(1.0, 3, 130, 20), point(nan, 1, 160), bent, point(1.0, 1, 190)}));
  EXPECT_EQ(found.faulty, (Owners{0, 1, 2, 4, 5, 6, 7, 8}));
  EXPECT_EQ(found.faults,
            (std::vector<Fault>{Fault::outside, Fault::outside, Fault::outside, Fault::overlapping,
                                Fault::wrongSize, Fault::tooLong, Fault::noTime, Fault::notGeoreferenced}));
  EXPECT_EQ(found.waveforms, (Indices{3, 9}));
}

TEST(PacketSelector, PointsWithoutPacketBelongToTheFirstWaveformOfTheirShot) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  Selection const found = selector.select(
      joined({point(1.0, 1, 60), point(1.0, 2, 70), point(1.0, 0, 0), point(2.0, 0, 0), point(3.0, 1, 80)}));
  EXPECT_EQ(found.owners, (Owners{0, 0, 1, 2}));
  EXPECT_EQ(found.pulses, (Indices{0, 2, 1, 4}));
  EXPECT_EQ(found.withoutPacket, 2U);
}

TEST(PacketSelector, PointsOfAPacketWithAnotherTimeBelongToNoPulse) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  Selection const found = selector.select(joined({point(1.0, 1, 60), point(2.0, 1, 60)}));
  EXPECT_EQ(found.owners, (Owners{0}));
  EXPECT_EQ(found.sharing, 1U);
}

TEST(PacketSelector, WithoutTimesARunOfEqualPacketsIsAPulse) {
  PacketSelector selector(PointLayout::of(9, size9), rules(true));
  Selection const found =
      selector.select(joined({point(5.0, 1, 60), point(5.0, 1, 60), point(5.0, 1, 80), point(5.0, 1, 60)}));
  EXPECT_EQ(found.owners, (Owners{0, 0, 1}));
  EXPECT_EQ(found.sharing, 2U);
}

TEST(PacketSelector, RefusesPartsOfRecords) {
  PacketSelector selector(PointLayout::of(9, size9), rules());
  EXPECT_THROW(selector.select(Bytes(size9 + 1)), std::invalid_argument);
  EXPECT_EQ(selector.select(Bytes()).owners.size(), 0U);
  EXPECT_THROW(PointLayout::of(6, 100), std::invalid_argument);
  EXPECT_THROW(PointLayout::of(10, 66), std::invalid_argument);
}

PointSurvey surveyOf(std::vector<Bytes> const& parts) {
  PointSurvey survey(PointLayout::of(9, size9));
  for (Bytes const& part : parts) {
    survey.add(part);
  }
  return survey;
}

TEST(PointSurvey, OrderAndDescriptorsOverAllParts) {
  PointSurvey const survey = surveyOf({joined({point(1.0, 3, 60), point(1.0, 2, 80)}), point(1.0, 0, 0),
                                       joined({point(2.0, 2, 90), point(2.0, 2, 100)})});
  EXPECT_TRUE(survey.isAscending());
  EXPECT_FALSE(survey.isWithoutTimes());
  EXPECT_EQ(survey.descriptors(), (std::vector<std::int64_t>{2, 3}));
  EXPECT_EQ(survey.pairsOfShots(), (std::vector<std::pair<int, int>>{{2, 3}}));
}

TEST(PointSurvey, DecreasingTimesAndNaNAreNotAscending) {
  EXPECT_FALSE(surveyOf({point(2.0, 1, 60), point(1.0, 1, 70)}).isAscending());
  EXPECT_FALSE(surveyOf({point(nan, 1, 60)}).isAscending());
  EXPECT_FALSE(surveyOf({joined({point(1.0, 1, 60), point(nan, 1, 70), point(2.0, 1, 80)})}).isAscending());
}

TEST(PointSurvey, OneTimeForSeveralPacketsIsNone) {
  EXPECT_TRUE(surveyOf({point(0.0, 1, 60), point(0.0, 1, 70)}).isWithoutTimes());
  EXPECT_FALSE(surveyOf({point(0.0, 1, 60), point(0.0, 1, 60)}).isWithoutTimes());
  EXPECT_FALSE(surveyOf({point(0.0, 1, 60), point(0.5, 1, 70)}).isWithoutTimes());
}

TEST(PointColumns, FieldsOfFormat9) {
  Bytes record = point(7.5, 4, 333);
  put(record, 0, std::int32_t{100});
  put(record, 4, std::int32_t{-200});
  put(record, 8, std::int32_t{300});
  put(record, 12, std::uint16_t{4321});
  record[14] = 0x52;  // return 2 of 5
  record[15] = 0xC4;  // withheld, direction and edge
  record[16] = 18;
  record[17] = 9;
  put(record, 18, std::int16_t{-2500});
  put(record, 20, std::uint16_t{77});
  put(record, 43, 1250.0F);
  put(record, 55, -0.5F);
  PointList const points = listOf(record);
  Scaling const scaling{{0.5, 0.25, 0.125}, {10.0, 20.0, 30.0}};
  WaveformColumns const waveforms = waveformColumns(points, scaling);
  EXPECT_EQ(waveforms.anchors, (std::vector<double>{60.0, -30.0, 67.5}));
  EXPECT_EQ(waveforms.directions, (std::vector<double>{0.0, 0.0, -0.5}));
  EXPECT_EQ(waveforms.locations, std::vector<double>{1250.0});
  EXPECT_EQ(waveforms.times, std::vector<double>{7.5});
  EXPECT_EQ(waveforms.scanAngles, std::vector<float>{-15.0F});
  EXPECT_EQ(waveforms.scanDirections, Bytes{1});
  EXPECT_EQ(waveforms.edges, Bytes{1});
  EXPECT_EQ(waveforms.userData, Bytes{9});
  EXPECT_EQ(waveforms.sources, std::vector<std::uint16_t>{77});
  EXPECT_EQ(waveforms.packetOffsets, std::vector<std::int64_t>{333});
  EXPECT_EQ(waveforms.descriptors, Bytes{4});
  record[15] = 0xC0;  // not withheld
  ReturnColumns const returns = returnColumns(points, std::array<std::int64_t, 1>{3}, scaling);
  EXPECT_TRUE(returns.areOrdered);
  EXPECT_EQ(returns.owners, Owners{3});
  EXPECT_EQ(returns.places, waveforms.anchors);
  EXPECT_EQ(returns.withheld, Bytes{0});
  EXPECT_EQ(returns.numbers, Bytes{2});
  EXPECT_EQ(returns.counts, Bytes{5});
  EXPECT_EQ(returns.intensities, std::vector<std::uint16_t>{4321});
  EXPECT_EQ(returns.classes, Bytes{18});
}

TEST(PointColumns, FieldsOfFormat4) {
  Bytes record(57);
  record[14] = 0x9A;  // return 2 of 3, edge
  record[15] = 0x85;  // class 5, withheld
  record[16] = static_cast<std::uint8_t>(-12);
  put(record, 18, std::uint16_t{77});
  put(record, 20, 7.5);
  record[28] = 4;
  put(record, 29, std::uint64_t{333});
  put(record, 41, 1250.0F);
  PointList const points = listOf(record, {0}, PointLayout::of(4, 57));
  WaveformColumns const waveforms = waveformColumns(points, {});
  EXPECT_EQ(waveforms.times, std::vector<double>{7.5});
  EXPECT_EQ(waveforms.scanAngles, std::vector<float>{-12.0F});
  EXPECT_EQ(waveforms.scanDirections, Bytes{0});
  EXPECT_EQ(waveforms.edges, Bytes{1});
  EXPECT_EQ(waveforms.sources, std::vector<std::uint16_t>{77});
  EXPECT_EQ(waveforms.packetOffsets, std::vector<std::int64_t>{333});
  EXPECT_EQ(waveforms.locations, std::vector<double>{1250.0});
  EXPECT_TRUE(returnColumns(points, std::array<std::int64_t, 1>{0}, {}).counts.empty());  // withheld
  record[15] = 0x05;
  ReturnColumns const returns = returnColumns(points, std::array<std::int64_t, 1>{0}, {});
  EXPECT_EQ(returns.numbers, Bytes{2});
  EXPECT_EQ(returns.counts, Bytes{3});
  EXPECT_EQ(returns.classes, Bytes{5});
  EXPECT_EQ(returns.descriptors, Bytes{4});
}

Bytes returnAt(float location, int descriptor = 1) {
  Bytes record = point(1.0, descriptor, 60);
  put(record, 43, location);
  return record;
}

TEST(PointColumns, ReturnsOfAWaveformAreInOrderOfTheirLocations) {
  Bytes withheld = returnAt(1.0F);
  withheld[15] = 0x04;
  Bytes const first = joined({returnAt(5.0F), returnAt(3.0F), withheld});
  Bytes const second =
      joined({returnAt(std::numeric_limits<float>::infinity()), returnAt(4.0F), returnAt(2.0F)});
  PointList points(PointLayout::of(9, size9));
  points.add(first, Indices{0, 1, 2});
  points.add(second, Indices{0, 2, 1});
  Owners const owners{0, 0, 0, 2, 2, 2};
  ReturnColumns const returns = returnColumns(points, owners, {});
  EXPECT_EQ(returns.points, (Indices{1, 0, 4, 5}));
  EXPECT_EQ(returns.owners, (Owners{0, 0, 2, 2}));
  EXPECT_EQ(returns.locations, (std::vector<double>{3.0, 5.0, 2.0, 4.0}));
}

TEST(PointColumns, APointWithoutPacketLeavesAllAsTheyAre) {
  Bytes const records = joined({returnAt(5.0F), returnAt(3.0F), returnAt(0.0F, 0)});
  ReturnColumns const returns = returnColumns(listOf(records, {0, 1, 2}), Owners{0, 0, 0}, {});
  EXPECT_FALSE(returns.areOrdered);
  EXPECT_EQ(returns.locations, (std::vector<double>{5.0, 3.0, 0.0}));
}

TEST(PointColumns, PointsOutsideAreRefused) {
  Bytes const records = point(1.0, 1, 60);
  EXPECT_THROW(listOf(records, {1}), std::out_of_range);
  EXPECT_THROW(listOf(records, {-1}), std::out_of_range);
  EXPECT_THROW(returnColumns(listOf(records), Owners{}, {}), std::invalid_argument);
}

// Heap blocks of exactly the size, so that the address sanitizer detects an access outside.
TEST(CopyRows, RunsOutsideAreRefused) {
  Bytes const source{10, 11, 12, 13, 14};
  Bytes target(6);
  std::array<std::int64_t, 3> const starts{3, 0, 2};
  std::array<std::int64_t, 3> const rows{0, 2, 1};
  copyRows(source, starts, rows, 2, target);
  EXPECT_EQ(target, (Bytes{13, 14, 12, 13, 10, 11}));
  for (auto const& [start, row] : {std::pair{4, 0}, {-1, 0}, {0, 3}, {0, -1}}) {
    std::array<std::int64_t, 1> const one{start};
    std::array<std::int64_t, 1> const where{row};
    EXPECT_THROW(copyRows(source, one, where, 2, target), std::out_of_range);
  }
  EXPECT_THROW(copyRows(source, starts, {rows.data(), 2}, 2, target), std::invalid_argument);
}

}  // namespace
}  // namespace Las
