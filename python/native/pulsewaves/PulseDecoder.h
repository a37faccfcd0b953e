#pragma once

#include <algorithm>
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>

#include <native/pulsewaves/NumberDecoder.h>
#include <native/pulsewaves/Pulse.h>
#include <native/pulsewaves/RangeDecoder.h>
#include <native/pulsewaves/SymbolModel.h>

namespace PulseWaves {

/// Many models, each prepared when it is used first.
template <std::size_t size, std::size_t count>
class SymbolModels {
 public:
  std::uint32_t decode(RangeDecoder& stream, std::size_t model) {
    if (!prepared[model]) [[unlikely]] {
      models[model].reset();
      prepared.set(model);
    }
    return models[model].decode(stream);
  }

 private:
  std::bitset<count> prepared;
  std::array<SymbolModel<size>, count> models;
};

/// Contexts of values in the order in which they appear: the n-th new value has (n - 1) mod 128.
template <std::size_t values>
class AppearanceContexts {
 public:
  AppearanceContexts() { contexts.fill(unknown); }

  std::uint8_t of(std::size_t value) {
    if (contexts[value] == unknown) {
      contexts[value] = next;
      next = (next + 1) & 127U;
    }
    return contexts[value];
  }

 private:
  static constexpr std::uint8_t unknown = 255;
  std::array<std::uint8_t, values> contexts;
  std::uint8_t next = 0;
};

/// Predicts a difference by the last one in the same context, or by the last of any.
template <std::size_t contexts>
class LastDifference {
 public:
  [[nodiscard]] std::int32_t in(std::size_t context) const {
    return known[context] ? last[context] : lastOfAny;
  }
  void remember(std::size_t context, std::int32_t difference) {
    known.set(context);
    last[context] = lastOfAny = difference;
  }

 private:
  std::bitset<contexts> known;
  std::array<std::int32_t, contexts> last{};
  std::int32_t lastOfAny = 0;
};

/// Decodes the times of pulses: multiples of a usual difference, corrected.
class TimeDecoder {
 public:
  TimeDecoder();
  std::int64_t decode(RangeDecoder& stream, std::int64_t last);

 private:
  std::int64_t withoutUsual(RangeDecoder& stream, std::int64_t last);
  std::int64_t withUsual(RangeDecoder& stream, std::int64_t last);
  void countExtreme(std::int32_t difference);
  [[nodiscard]] std::int32_t multiple(std::int32_t factor) const;

  SymbolModel<3> start;
  SymbolModel<256> multiples;
  NumberDecoder<32, 9> differences;
  std::int32_t usual = 0;  // counts
  int extremes = 0;        // since the usual difference was last seen
};

/// Decodes a pulse from the one before; one object per chunk.
class PulseDecoder {
 public:
  PulseDecoder();
  void decode(RangeDecoder& stream, Pulse& pulse);

 private:
  /// @return the context of the positions: whether flags have changed before (1), and change now (2)
  unsigned int changes(RangeDecoder& stream, Pulse& pulse);
  void returning(RangeDecoder& stream, Pulse& pulse, unsigned int change, std::size_t context);
  void offset(RangeDecoder& stream, Pulse& pulse);
  void positions(RangeDecoder& stream, Pulse& pulse, std::size_t context);

  unsigned int descriptorContext = 0;
  unsigned int flagMask = 0;  // 128 after the first change of the flags
  AppearanceContexts<256> descriptorContexts;
  AppearanceContexts<65536> flagContexts;
  AppearanceContexts<65536> classificationContexts;
  SymbolModels<64, 256> changed;
  SymbolModels<256, 256> descriptors;
  SymbolModels<256, 128> flags;
  SymbolModels<256, 128> classifications;
  NumberDecoder<8, 128> intensities;
  NumberDecoder<16, 512> firsts;
  NumberDecoder<16, 512> lasts;
  TimeDecoder times;
  NumberDecoder<32, 128> offsets;
  LastDifference<128> lastOffset;
  std::array<NumberDecoder<32, 4>, 3> anchors;
  std::array<NumberDecoder<32>, 3> targets;
  std::array<LastDifference<4>, 3> lastAnchor;
};

}  // namespace PulseWaves
