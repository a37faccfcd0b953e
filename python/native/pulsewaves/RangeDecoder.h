#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace PulseWaves {

/// Decoder state of a range coder with 32 bits.
///
/// After the end of the bytes it continues with zeros, so that no caller has to check every symbol; `failed`
/// says so.
class RangeDecoder {
 public:
  static constexpr std::size_t startBytes = 4;

  /// @param bytes  the stream, which may be followed by other bytes; must outlive the decoder
  explicit RangeDecoder(std::span<std::uint8_t const> bytes)
      : next(bytes.data()), begin(bytes.data()), end(bytes.data() + bytes.size()) {
    for (std::size_t i = 0; i < startBytes; ++i) {
      value = value << 8U | nextByte();
    }
  }

  /// Whether the stream ended before the last symbol, or has a value that no encoder writes.
  [[nodiscard]] bool failed() const { return missing || invalid; }
  /// Whether bytes were missing.
  [[nodiscard]] bool truncated() const { return missing; }
  /// Bytes read so far. After the last symbol of an intact stream: all of its bytes.
  [[nodiscard]] std::size_t consumed() const { return static_cast<std::size_t>(next - begin); }

  /// The bytes that were not read.
  [[nodiscard]] std::uint8_t const* position() const { return next; }

  /// Continues after symbols that were decoded elsewhere, with the state that they lead to.
  ///
  /// @param bytes  how many of the stream they took, also after its end
  void resume(std::uint32_t newValue, std::uint32_t newLength, std::size_t bytes) {
    value = newValue;
    length = newLength;
    auto const available = static_cast<std::size_t>(end - next);
    missing = missing || bytes > available;
    next += std::min(bytes, available);
  }

  /// `count` bits with equal probabilities, at most 32.
  std::uint32_t rawBits(unsigned int count) {
    if (count > maxBitsAtOnce) {
      std::uint32_t const low = rawBits(16);
      return rawBits(count - 16) << 16U | low;
    }
    length >>= count;
    std::uint32_t const bits = value / length;
    value -= bits * length;
    if (bits >> count != 0) {
      invalid = true;
    }
    renormalise();
    return bits & ((std::uint32_t{1} << count) - 1);
  }

  /// 64 bits with equal probabilities.
  std::uint64_t rawBits64() {
    std::uint64_t bits = 0;
    for (unsigned int shift = 0; shift < 64; shift += 16) {
      bits |= std::uint64_t{rawBits(16)} << shift;
    }
    return bits;
  }

  // For the models only.
  std::uint32_t value = 0;
  std::uint32_t length = 0xFFFFFFFF;

  void renormalise() {
    while (length < minLength) {
      value = value << 8U | nextByte();
      length <<= 8U;
    }
  }

 private:
  static constexpr std::uint32_t minLength = std::uint32_t{1} << 24U;
  static constexpr unsigned int maxBitsAtOnce = 19;

  std::uint8_t nextByte() {
    if (next == end) [[unlikely]] {
      missing = true;
      return 0;
    }
    return *next++;
  }

  std::uint8_t const* next;
  std::uint8_t const* begin;
  std::uint8_t const* end;
  bool missing = false;
  bool invalid = false;
};

}  // namespace PulseWaves
