#include <native/pulsewaves/RangeDecoder.h>

#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include <native/pulsewaves/NumberDecoder.h>
#include <native/pulsewaves/SymbolModel.h>

namespace PulseWaves {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(RangeDecoder, RawBitsDivideTheIntervalEvenly) {
  // 8 bits: a unit is 0xFFFFFFFF >> 8 = 0x00FFFFFF, so 3 units are 0x02FFFFFD.
  Bytes const bytes{0x02, 0xFF, 0xFF, 0xFD, 0x00};
  RangeDecoder stream(bytes);
  EXPECT_EQ(stream.rawBits(8), 3U);
  EXPECT_EQ(stream.consumed(), 5U);
  EXPECT_FALSE(stream.failed());
}

TEST(RangeDecoder, BytesAfterTheEndAreZeroAndFail) {
  Bytes const bytes{0x00, 0x00};
  RangeDecoder stream(bytes);
  EXPECT_TRUE(stream.truncated());
  EXPECT_EQ(stream.rawBits(16), 0U);
  EXPECT_EQ(stream.consumed(), 2U);
}

TEST(RangeDecoder, ValueOutsideTheIntervalFailsAndStaysInRange) {
  Bytes const bytes(8, 0xFF);
  RangeDecoder stream(bytes);
  EXPECT_LT(stream.rawBits(4), 16U);
  EXPECT_TRUE(stream.failed());
  EXPECT_FALSE(stream.truncated());
}

TEST(RangeDecoder, LongNumbersStartWithTheirLowBits) {
  Bytes const zeros(16, 0);
  RangeDecoder stream(zeros);
  EXPECT_EQ(stream.rawBits(32), 0U);
  EXPECT_EQ(stream.rawBits64(), 0U);
  EXPECT_FALSE(stream.failed());
}

TEST(BitModel, HalfOfTheIntervalBelongsToEachBitAtTheStart) {
  // The limit is 4096 * (0xFFFFFFFF >> 13) = 0x7FFFF000.
  Bytes const below{0x7F, 0xFF, 0xEF, 0xFF};
  Bytes const above{0x7F, 0xFF, 0xF0, 0x00};
  RangeDecoder first(below);
  RangeDecoder second(above);
  EXPECT_FALSE(BitModel().decode(first));
  EXPECT_TRUE(BitModel().decode(second));
}

TEST(SymbolModel, SymbolsHaveEqualProbabilitiesAtTheStart) {
  // Four symbols: limits at multiples of 2^13 / 2^15 of the interval, units of 0xFFFFFFFF >> 15 = 131071.
  for (std::uint32_t symbol = 0; symbol < 4; ++symbol) {
    std::uint32_t const limit = symbol * 8192 * 131071;
    Bytes const bytes{static_cast<std::uint8_t>(limit >> 24U), static_cast<std::uint8_t>(limit >> 16U),
                      static_cast<std::uint8_t>(limit >> 8U), static_cast<std::uint8_t>(limit)};
    RangeDecoder stream(bytes);
    SymbolModel<4> model;
    model.reset();
    EXPECT_EQ(model.decode(stream), symbol);
  }
}

TEST(SymbolModel, LargestValueGivesTheLastSymbolOfEverySize) {
  Bytes const ones(64, 0xFF);
  auto const last = [&]<std::size_t size>(SymbolModel<size> model) {
    model.reset();
    RangeDecoder stream(ones);
    return model.decode(stream);
  };
  EXPECT_EQ(last(SymbolModel<2>()), 1U);
  EXPECT_EQ(last(SymbolModel<3>()), 2U);
  EXPECT_EQ(last(SymbolModel<9>()), 8U);
  EXPECT_EQ(last(SymbolModel<17>()), 16U);
  EXPECT_EQ(last(SymbolModel<18>()), 17U);
  EXPECT_EQ(last(SymbolModel<33>()), 32U);
  EXPECT_EQ(last(SymbolModel<34>()), 33U);
  EXPECT_EQ(last(SymbolModel<64>()), 63U);
  EXPECT_EQ(last(SymbolModel<128>()), 127U);
  EXPECT_EQ(last(SymbolModel<256>()), 255U);
}

TEST(NumberDecoder, StreamOfZerosRepeatsThePrediction) {
  Bytes const zeros(200, 0);
  RangeDecoder stream(zeros);
  NumberDecoder<8> numbers;
  numbers.reset();
  std::int32_t last = 200;
  for (int i = 0; i < 1000; ++i) {
    last = numbers.decode(stream, last);
  }
  EXPECT_EQ(last, 200);
  EXPECT_FALSE(stream.failed());
}

TEST(NumberDecoder, LastClassOf32BitsIsTheSmallestNumber) {
  Bytes const ones{0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF};
  RangeDecoder stream(ones);
  NumberDecoder<32> numbers;
  numbers.reset();
  EXPECT_EQ(numbers.decode(stream, 0), std::numeric_limits<std::int32_t>::min());
}

}  // namespace
}  // namespace PulseWaves
