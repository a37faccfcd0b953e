#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace FullWaveform::Fuzz {

/// Reads values from a fuzzer's input; after its end all values are 0 or empty.
///
/// Numbers are little-endian, so that seeds can be written in any language.
class Bytes {
 public:
  Bytes(std::uint8_t const* data, std::size_t size) : next(data), left(size) {}

  [[nodiscard]] std::size_t remaining() const { return left; }

  template <class T>
  T raw() {
    T value{};
    std::size_t const count = std::min(left, sizeof(T));
    std::memcpy(&value, next, count);
    next += count;
    left -= count;
    return value;
  }
  std::uint8_t byte() { return raw<std::uint8_t>(); }
  bool flag() { return (byte() & 1U) != 0; }
  /// An integer from 0 to `max`; `max` is at most 255.
  unsigned int upTo(unsigned int max) { return byte() % (max + 1U); }

  /// A double; a tag byte selects a special value or eight arbitrary bytes.
  double number() {
    static constexpr std::array<double, 12> special{0.0,
                                                    -0.0,
                                                    std::numeric_limits<double>::quiet_NaN(),
                                                    std::numeric_limits<double>::infinity(),
                                                    -std::numeric_limits<double>::infinity(),
                                                    std::numeric_limits<double>::max(),
                                                    std::numeric_limits<double>::lowest(),
                                                    std::numeric_limits<double>::denorm_min(),
                                                    std::numeric_limits<double>::min(),
                                                    1.0,
                                                    -1.0,
                                                    1e-9};
    std::uint8_t const tag = byte();
    return tag < special.size() ? special[tag] : raw<double>();
  }
  float narrowNumber() { return flag() ? raw<float>() : static_cast<float>(byte()); }

  template <class T>
  std::vector<T> values(std::size_t count) {
    std::vector<T> all(std::min(count, left / sizeof(T)));
    for (T& value : all) {
      value = raw<T>();
    }
    return all;
  }
  std::vector<double> numbers(std::size_t count) {
    std::vector<double> all(count);
    std::generate(all.begin(), all.end(), [this] { return number(); });
    return all;
  }
  /// The remaining bytes as samples.
  std::vector<unsigned short> samples() { return values<unsigned short>(left / sizeof(unsigned short)); }
  std::string text(std::size_t maxLength) {
    std::vector<char> const letters = values<char>(maxLength);
    return {letters.begin(), letters.end()};
  }

 private:
  std::uint8_t const* next;
  std::size_t left;
};

}  // namespace FullWaveform::Fuzz
