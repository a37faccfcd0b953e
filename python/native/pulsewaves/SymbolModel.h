#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include <native/pulsewaves/RangeDecoder.h>

namespace PulseWaves {

/// Adaptive probability of one bit.
class BitModel {
 public:
  static constexpr unsigned int probabilityBits = 13;
  static constexpr std::uint32_t firstCycle = 4;

  /// Bits between two updates, after `cycle` of them before.
  static constexpr std::uint32_t nextCycle(std::uint32_t cycle) {
    return std::min(std::uint32_t{64}, 5 * cycle / 4);
  }

  void reset() { *this = BitModel(); }

  bool decode(RangeDecoder& stream) {
    std::uint32_t const split = probability * (stream.length >> probabilityBits);
    bool const bit = stream.value >= split;
    if (bit) {
      stream.value -= split;
      stream.length -= split;
    } else {
      stream.length = split;
      ++zeros;
    }
    stream.renormalise();
    if (--left == 0) {
      update();
    }
    return bit;
  }

 private:
  void update() {
    total += cycle;
    if (total > std::uint32_t{1} << probabilityBits) {
      total = (total + 1) / 2;
      zeros = (zeros + 1) / 2;
      if (zeros == total) {
        ++total;
      }
    }
    probability = zeros * (0x80000000U / total) >> (31 - probabilityBits);
    left = cycle = nextCycle(cycle);
  }

  std::uint32_t zeros = 1;
  std::uint32_t total = 2;
  std::uint32_t probability = std::uint32_t{1} << (probabilityBits - 1);
  std::uint32_t cycle = firstCycle;
  std::uint32_t left = firstCycle;
};

/// Adaptive probabilities of `size` symbols. Must be reset before its first use.
template <std::size_t size>
class SymbolModel {
 public:
  static constexpr unsigned int probabilityBits = 15;
  static constexpr std::uint32_t firstCycle = (size + 6) / 2;

  /// Symbols between two updates, after `cycle` of them before.
  static constexpr std::uint32_t nextCycle(std::uint32_t cycle) {
    return std::min<std::uint32_t>(5 * cycle / 4, 8 * (size + 6));
  }

  /// Cumulated probability before each symbol at the start, in 2^-15.
  static constexpr std::uint16_t startLimit(std::size_t symbol) {
    return static_cast<std::uint16_t>(0x80000000U / size * symbol >> 16U);
  }

  void reset() {
    counts.fill(1);
    limits = startLimits;
    total = size;
    cycle = left = firstCycle;
  }

  /// @return the symbol, always below `size`
  [[gnu::always_inline]] std::uint32_t decode(RangeDecoder& stream) {
    std::uint32_t const unit = stream.length >> probabilityBits;
    std::size_t const symbol = find(stream.value, unit);
    std::uint32_t const low = limits[symbol] * unit;
    std::uint32_t const high = symbol + 1 < size ? limits[symbol + 1] * unit : stream.length;
    stream.value -= low;
    stream.length = high - low;
    stream.renormalise();
    ++counts[symbol];
    if (--left == 0) {
      update();
    }
    return static_cast<std::uint32_t>(symbol);
  }

 private:
  static constexpr std::uint32_t maxTotal = std::uint32_t{1} << probabilityBits;

  using Limits = std::array<std::uint16_t, size>;  // cumulated probabilities, in 2^-15

  static constexpr Limits startLimits = [] {
    Limits limits{};
    for (std::size_t k = 0; k < size; ++k) {
      limits[k] = startLimit(k);
    }
    return limits;
  }();

  /// The last symbol whose limit is not above `value`.
  ///
  /// Compared in steps of 64, 8 and 1 without branches: which symbol follows is what cannot be predicted.
  std::size_t find(std::uint32_t value, std::uint32_t unit) const {
    std::size_t symbol = 0;
    if constexpr (size > 64) {
      symbol = findInSteps<64, (size + 63) / 64>(symbol, value, unit);
    }
    if constexpr (size > 9) {
      symbol = findInSteps<8, std::min<std::size_t>(8, (size + 7) / 8)>(symbol, value, unit);
      return findInSteps<1, 8>(symbol, value, unit);
    }
    return findInSteps<1, size>(symbol, value, unit);
  }

  template <std::size_t step, std::size_t steps>
  std::size_t findInSteps(std::size_t first, std::uint32_t value, std::uint32_t unit) const {
    std::size_t found = 0;
    for (std::size_t k = 1; k < steps; ++k) {
      std::size_t const symbol = first + k * step;
      if constexpr (size % (step * steps) != 0) {
        if (symbol >= size) {
          break;
        }
      }
      found += static_cast<std::size_t>(limits[symbol] * unit <= value);
    }
    return first + found * step;
  }

  void update() {
    total += cycle;
    if (total > maxTotal) {
      total = 0;
      for (std::uint16_t& count : counts) {
        count = static_cast<std::uint16_t>((count + 1) / 2);
        total += count;
      }
    }
    std::uint32_t const scale = 0x80000000U / total;
    std::uint32_t sum = 0;
    for (std::size_t k = 0; k < size; ++k) {
      limits[k] = static_cast<std::uint16_t>(scale * sum >> 16U);
      sum += counts[k];
    }
    left = cycle = nextCycle(cycle);
  }

  Limits limits;
  std::array<std::uint16_t, size> counts;
  std::uint32_t total;
  std::uint32_t cycle;
  std::uint32_t left;
};

}  // namespace PulseWaves
