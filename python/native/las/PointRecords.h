#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace Las {

/// Where the fields of a point with a waveform packet are in its record; little-endian.
struct PointLayout {
  std::size_t size;  // bytes of a record, extra bytes included
  std::size_t time;
  std::size_t packet;  // the 29 bytes on the waveform packet
  bool isLegacy;       // formats 4 and 5, with other flags and angles than 9 and 10

  /// @param format  4, 5, 9 or 10
  /// @throws std::invalid_argument for another format, or if a record is too short for it
  static PointLayout of(int format, std::size_t size) {
    PointLayout layout{size, 22, 0, false};
    switch (format) {
      case 4:
        layout = {size, 20, 28, true};
        break;
      case 5:
        layout = {size, 20, 34, true};
        break;
      case 9:
        layout.packet = 30;
        break;
      case 10:
        layout.packet = 38;
        break;
      default:
        throw std::invalid_argument("point format " + std::to_string(format) + " has no waveforms");
    }
    if (size < layout.packet + packetBytes) {
      throw std::invalid_argument("point of " + std::to_string(size) + " bytes");
    }
    return layout;
  }

 private:
  static constexpr std::size_t packetBytes = 29;
};

/// Fields of a record as they are stored.
class Point {
 public:
  Point(std::uint8_t const* record, PointLayout const& layout) : record(record), layout(layout) {}

  [[nodiscard]] std::int32_t coordinate(std::size_t axis) const { return read<std::int32_t>(4 * axis); }
  [[nodiscard]] std::uint16_t intensity() const { return read<std::uint16_t>(12); }
  [[nodiscard]] double time() const { return read<double>(layout.time); }
  /// 0: no packet
  [[nodiscard]] std::uint8_t descriptor() const { return record[layout.packet]; }
  [[nodiscard]] std::uint64_t packetOffset() const { return read<std::uint64_t>(layout.packet + 1); }
  [[nodiscard]] std::uint32_t packetBytes() const { return read<std::uint32_t>(layout.packet + 9); }
  /// ps after the first sample
  [[nodiscard]] float location() const { return read<float>(layout.packet + 13); }
  [[nodiscard]] float direction(std::size_t axis) const { return read<float>(layout.packet + 17 + 4 * axis); }

  [[nodiscard]] std::uint8_t returnNumber() const { return record[14] & (layout.isLegacy ? 0x07U : 0x0FU); }
  [[nodiscard]] std::uint8_t returnCount() const {
    return layout.isLegacy ? record[14] >> 3U & 0x07U : record[14] >> 4U;
  }
  [[nodiscard]] std::uint8_t classification() const {
    return layout.isLegacy ? record[15] & 0x1FU : record[16];
  }
  [[nodiscard]] bool isWithheld() const { return (record[15] & (layout.isLegacy ? 0x80U : 0x04U)) != 0; }
  [[nodiscard]] std::uint8_t scanDirection() const { return record[layout.isLegacy ? 14 : 15] >> 6U & 1U; }
  [[nodiscard]] std::uint8_t edgeOfFlightLine() const { return record[layout.isLegacy ? 14 : 15] >> 7U; }
  [[nodiscard]] std::uint8_t userData() const { return record[17]; }
  [[nodiscard]] std::uint16_t source() const { return read<std::uint16_t>(layout.isLegacy ? 18 : 20); }
  /// degrees
  [[nodiscard]] float scanAngle() const {
    constexpr double unit = 0.006;
    return layout.isLegacy ? static_cast<float>(read<std::int8_t>(16))
                           : static_cast<float>(read<std::int16_t>(18) * unit);
  }

 private:
  template <class Value>
  [[nodiscard]] Value read(std::size_t offset) const {
    Value value;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
  }

  std::uint8_t const* record;
  PointLayout const& layout;
};

/// Records of points, one after the other.
class PointRecords {
 public:
  /// @param bytes  must outlive the records
  /// @throws std::invalid_argument unless they are a whole number of records
  PointRecords(std::span<std::uint8_t const> bytes, PointLayout const& layout)
      : bytes(bytes), layout(layout) {
    if (bytes.size() % layout.size != 0) {
      throw std::invalid_argument(std::to_string(bytes.size()) + " bytes for points of " +
                                  std::to_string(layout.size));
    }
  }

  [[nodiscard]] std::size_t count() const { return bytes.size() / layout.size; }
  /// @param index  below `count()`
  [[nodiscard]] std::span<std::uint8_t const> record(std::size_t index) const {
    return bytes.subspan(index * layout.size, layout.size);
  }
  [[nodiscard]] Point operator[](std::size_t index) const { return {record(index).data(), layout}; }

 private:
  std::span<std::uint8_t const> bytes;
  PointLayout layout;
};

/// Chosen points of several runs of records, in the order in which they were added.
class PointList {
 public:
  explicit PointList(PointLayout const& layout) : layout(layout) {}

  /// @param bytes  must outlive the list
  /// @throws std::invalid_argument unless they are a whole number of records, std::out_of_range for an index
  ///         without a record
  void add(std::span<std::uint8_t const> bytes, std::span<std::int64_t const> indices) {
    PointRecords const points(bytes, layout);
    records.reserve(records.size() + indices.size());
    for (std::int64_t const index : indices) {
      auto const number = static_cast<std::size_t>(index);  // negative ones become large
      if (number >= points.count()) {
        throw std::out_of_range("point " + std::to_string(index) + " of " + std::to_string(points.count()));
      }
      records.push_back(points.record(number).data());
    }
  }

  [[nodiscard]] std::size_t count() const { return records.size(); }
  /// @param index  below `count()`
  [[nodiscard]] Point operator[](std::size_t index) const { return {records[index], layout}; }

 private:
  PointLayout layout;
  std::vector<std::uint8_t const*> records;
};

}  // namespace Las
