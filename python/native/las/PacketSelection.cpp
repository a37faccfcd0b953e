#include <native/las/PacketSelection.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <new>
#include <optional>
#include <utility>

namespace Las {

namespace {

std::uint64_t smallestPacket(PacketRules const& rules) {
  std::int64_t smallest = 0;
  for (std::int64_t const size : rules.packetBytes) {
    if (size > 0 && (smallest == 0 || size < smallest)) {
      smallest = size;
    }
  }
  return static_cast<std::uint64_t>(std::max<std::int64_t>(smallest, 1));
}

/// Spreads neighbouring offsets over a table (the finaliser of MurmurHash3, by A. Appleby).
std::uint64_t mixed(std::uint64_t value) {
  value = (value ^ value >> 33U) * 0xFF51AFD7ED558CCDULL;
  value = (value ^ value >> 33U) * 0xC4CEB9FE1A85EC53ULL;
  return value ^ value >> 33U;
}

std::optional<Fault> faultOf(Point const& point, PacketRules const& rules) {
  std::uint8_t const descriptor = point.descriptor();
  if (point.packetBytes() != rules.packetBytes[descriptor]) {
    return Fault::wrongSize;
  }
  if (rules.sampleCounts[descriptor] > rules.maxSamples) {
    return Fault::tooLong;
  }
  if (!std::isfinite(point.time())) {
    return Fault::noTime;
  }
  bool const isGeoreferenced = std::isfinite(point.location()) && std::isfinite(point.direction(0)) &&
                               std::isfinite(point.direction(1)) && std::isfinite(point.direction(2));
  return isGeoreferenced ? std::nullopt : std::optional(Fault::notGeoreferenced);
}

/// Finds the first waveform of a shot by its time.
class ShotsByTime {
 public:
  /// @param times  of each waveform
  explicit ShotsByTime(std::span<double const> times) {
    shots.reserve(times.size());
    for (double const time : times) {
      shots.emplace_back(time, static_cast<std::int64_t>(shots.size()));
    }
    if (!std::is_sorted(shots.begin(), shots.end())) {
      std::sort(shots.begin(), shots.end());  // times are finite
    }
  }

  /// @return the waveform; -1 without one
  [[nodiscard]] std::int64_t find(double time) const {
    auto const shot =
        std::lower_bound(shots.begin(), shots.end(), time,
                         [](std::pair<double, std::int64_t> const& one, double t) { return one.first < t; });
    return shot != shots.end() && shot->first == time ? shot->second : -1;
  }

 private:
  std::vector<std::pair<double, std::int64_t>> shots;
};

}  // namespace

BitField::BitField(std::uint64_t count)
    : bytes(static_cast<std::uint8_t*>(std::calloc(static_cast<std::size_t>(count / 8 + 1), 1))) {
  if (!bytes) {
    throw std::bad_alloc();
  }
}

PacketSelector::PacketSelector(PointLayout const& layout, PacketRules const& rules)
    : layout(layout),
      rules(rules),
      cellBytes(smallestPacket(rules)),
      seen(rules.dataBytes / cellBytes),
      seenNow(rules.dataBytes / cellBytes) {}

Selection PacketSelector::select(std::span<std::uint8_t const> bytes) {
  PointRecords const points(bytes, layout);
  Selection found;
  prepare(points.count());
  selectWaveforms(points, found);
  assignOwners(points, found);
  for (std::uint64_t const cell : cellsNow) {
    seenNow.clearNear(cell);
  }
  cellsNow.clear();
  return found;
}

void PacketSelector::prepare(std::size_t points) {
  packets.clear();
  slots.clear();
  packetOfPoint.assign(points, 0);
}

/// Index of the packet at the offset, new if `point` is the first one with it.
std::size_t PacketSelector::packetAt(std::uint64_t offset, std::size_t point) {
  if (slots.empty()) {
    if (packets.empty() || offset > packets.back().offset) {
      return addPacket(offset, point);
    }
    if (std::optional<std::size_t> const packet = ascendingPacketAt(offset)) {
      return *packet;
    }
    fillTable();
  }
  std::uint64_t& slot = slotOf(offset);
  if (slot == 0) {
    addPacket(offset, point);
    slot = packets.size();
  }
  return static_cast<std::size_t>(slot - 1);
}

/// Scanners write packets in the order of time: most points have one of the last packets.
std::optional<std::size_t> PacketSelector::ascendingPacketAt(std::uint64_t offset) const {
  constexpr std::size_t near = 4;
  std::size_t const count = packets.size();
  for (std::size_t back = 1; back <= std::min(near, count); ++back) {
    if (packets[count - back].offset == offset) {
      return count - back;
    }
  }
  auto const packet =
      std::lower_bound(packets.begin(), packets.end(), offset,
                       [](Packet const& one, std::uint64_t other) { return one.offset < other; });
  bool const isFound = packet != packets.end() && packet->offset == offset;
  return isFound ? std::optional(static_cast<std::size_t>(packet - packets.begin())) : std::nullopt;
}

std::size_t PacketSelector::addPacket(std::uint64_t offset, std::size_t point) {
  packets.push_back({offset, point});
  return packets.size() - 1;
}

/// Where the packet at the offset is, or will be, in the table.
std::uint64_t& PacketSelector::slotOf(std::uint64_t offset) {
  std::size_t const mask = slots.size() - 1;
  std::size_t place = static_cast<std::size_t>(mixed(offset)) & mask;
  while (slots[place] != 0 && packets[static_cast<std::size_t>(slots[place] - 1)].offset != offset) {
    place = (place + 1) & mask;
  }
  return slots[place];
}

void PacketSelector::fillTable() {
  slots.assign(std::bit_ceil(2 * packetOfPoint.size() + 1), 0);
  for (std::size_t packet = 0; packet < packets.size(); ++packet) {
    slotOf(packets[packet].offset) = packet + 1;
  }
}

bool PacketSelector::isInside(std::uint64_t offset, std::int64_t size) const {
  auto const bytes = static_cast<std::uint64_t>(size);
  return bytes <= rules.dataBytes && offset >= rules.headerBytes && offset <= rules.dataBytes - bytes;
}

void PacketSelector::selectWaveforms(PointRecords const& points, Selection& found) {
  found.waveforms.reserve(points.count());
  found.times.reserve(points.count());
  for (std::size_t i = 0; i < points.count(); ++i) {
    Point const point = points[i];
    if (point.descriptor() == 0) {
      ++found.withoutPacket;
      continue;
    }
    std::uint64_t const offset = point.packetOffset();
    std::size_t const packet = packetOfPoint[i] = packetAt(offset, i);
    if (packets[packet].first != i) {
      ++found.sharing;
      continue;
    }
    std::optional<Fault> fault;
    if (!isInside(offset, rules.packetBytes[point.descriptor()])) {
      fault = Fault::outside;
    } else if (std::uint64_t const cell = offset / cellBytes; seenNow.test(cell)) {
      fault = Fault::overlapping;
    } else {
      seenNow.set(cell);
      cellsNow.push_back(cell);
      if (seen.test(cell)) {
        ++found.sharing;
        continue;
      }
      seen.set(cell);
      fault = faultOf(point, rules);
    }
    if (fault) {
      found.faulty.push_back(static_cast<std::int64_t>(i));
      found.faults.push_back(*fault);
      continue;
    }
    packets[packet].waveform = static_cast<std::int64_t>(found.waveforms.size());
    found.waveforms.push_back(static_cast<std::int64_t>(i));
    found.times.push_back(point.time());
  }
}

/// Points of a packet belong to its waveform if they also have its GPS time; without times, if they follow
/// each other in the file. Points without a packet belong to the pulse with their GPS time.
void PacketSelector::assignOwners(PointRecords const& points, Selection& found) {
  bool const needsShots = found.withoutPacket > 0 && !rules.withoutTimes;
  ShotsByTime const shots(needsShots ? std::span<double const>(found.times) : std::span<double const>());
  std::vector<std::int64_t> owners(points.count(), none);
  std::vector<std::size_t> runs(rules.withoutTimes ? points.count() : 0);  // of points with equal packet
  std::vector<std::size_t> ends(found.waveforms.size() + 1);  // of the points of each waveform, counted first
  for (std::size_t i = 0; i < points.count(); ++i) {
    Point const point = points[i];
    if (rules.withoutTimes && i > 0) {
      runs[i] = runs[i - 1] + static_cast<std::size_t>(point.packetOffset() != points[i - 1].packetOffset());
    }
    if (point.descriptor() > 0) {
      Packet const& packet = packets[packetOfPoint[i]];
      bool const isSame =
          rules.withoutTimes ? runs[i] == runs[packet.first] : point.time() == points[packet.first].time();
      owners[i] = isSame ? packet.waveform : none;
    } else if (!rules.withoutTimes) {
      owners[i] = shots.find(point.time());
    }
    if (owners[i] != none) {
      ++ends[static_cast<std::size_t>(owners[i]) + 1];
    }
  }
  for (std::size_t waveform = 0; waveform < found.waveforms.size(); ++waveform) {
    ends[waveform + 1] += ends[waveform];
  }
  found.pulses.resize(ends.back());
  found.owners.resize(ends.back());
  for (std::size_t i = 0; i < points.count(); ++i) {
    if (owners[i] != none) {
      std::size_t const place = ends[static_cast<std::size_t>(owners[i])]++;
      found.pulses[place] = static_cast<std::int64_t>(i);
      found.owners[place] = owners[i];
    }
  }
}

}  // namespace Las
