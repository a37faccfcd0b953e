#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include <native/las/PointRecords.h>

namespace Las {

/// Why the waveform of a point is unreadable; in the order of the checks.
enum class Fault : std::uint8_t {
  outside,           // packet not completely inside the packet data
  overlapping,       // packet overlaps another packet
  wrongSize,         // packet size differs from descriptor
  tooLong,           // more samples than allowed
  noTime,            // GPS time not finite
  notGeoreferenced,  // direction or return location not finite
};

/// What the packets of a file are checked against.
struct PacketRules {
  static constexpr std::size_t descriptorCount = 256;

  std::uint64_t dataBytes = 0;  // of the packet data, with its header
  std::uint64_t headerBytes = 0;
  std::array<std::int64_t, descriptorCount> packetBytes{};   // by descriptor
  std::array<std::int64_t, descriptorCount> sampleCounts{};  // by descriptor
  std::int64_t maxSamples = 0;
  bool withoutTimes = false;  // all points have the same GPS time, which identifies no shot
};

/// The waveforms that points refer to, and all points of their pulses; points by their index.
struct Selection {
  std::vector<std::int64_t> waveforms;  // first point of each new and readable waveform
  std::vector<double> times;            // of these, s
  std::vector<std::int64_t> pulses;     // points of their pulses, ascending by owner
  std::vector<std::int64_t> owners;     // of these: the first waveform of the pulse, or the one of the packet
  std::vector<std::int64_t> faulty;     // index of each point with an unreadable waveform
  std::vector<Fault> faults;            // of these
  std::size_t withoutPacket = 0;        // points
  std::size_t sharing = 0;              // points whose waveform belongs to an earlier point
};

/// Bits that are zero at first; memory is used where bits are set.
class BitField {
 public:
  /// @throws std::bad_alloc
  explicit BitField(std::uint64_t count);

  [[nodiscard]] bool test(std::uint64_t bit) const {
    return (bytes.get()[bit >> 3U] >> (bit & 7U) & 1U) != 0;
  }
  void set(std::uint64_t bit) { bytes.get()[bit >> 3U] |= static_cast<std::uint8_t>(1U << (bit & 7U)); }
  void clearNear(std::uint64_t bit) { bytes.get()[bit >> 3U] = 0; }

 private:
  struct Free {
    void operator()(std::uint8_t* memory) const { std::free(memory); }
  };
  std::unique_ptr<std::uint8_t, Free> bytes;
};

/// Selects the waveforms of consecutive runs of points, each waveform once.
///
/// Packets do not overlap, so two of them never start in the same cell of the size of the smallest packet:
/// one bit per cell remembers which packets were selected before.
class PacketSelector {
 public:
  PacketSelector(PointLayout const& layout, PacketRules const& rules);

  /// @param bytes  records of whole shots; those of earlier calls are not repeated
  /// @throws std::invalid_argument unless the bytes are whole records
  Selection select(std::span<std::uint8_t const> bytes);

 private:
  static constexpr std::int64_t none = -1;

  /// Points that share a packet.
  struct Packet {
    std::uint64_t offset;
    std::size_t first;             // point
    std::int64_t waveform = none;  // index among those selected
  };
  std::size_t packetAt(std::uint64_t offset, std::size_t point);
  std::optional<std::size_t> ascendingPacketAt(std::uint64_t offset) const;
  std::size_t addPacket(std::uint64_t offset, std::size_t point);
  std::uint64_t& slotOf(std::uint64_t offset);
  void prepare(std::size_t points);
  void fillTable();
  void selectWaveforms(PointRecords const& points, Selection& found);
  bool isInside(std::uint64_t offset, std::int64_t size) const;
  void assignOwners(PointRecords const& points, Selection& found);

  PointLayout layout;
  PacketRules rules;
  std::uint64_t cellBytes;
  BitField seen;
  BitField seenNow;                        // in this run of points
  std::vector<std::uint64_t> cellsNow;     // of these bits
  std::vector<Packet> packets;             // of this run of points
  std::vector<std::uint64_t> slots;        // 1 + index of a packet; empty while the packets ascend by offset
  std::vector<std::size_t> packetOfPoint;  // index in `packets`
};

}  // namespace Las
