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
  ShotsByTime(PointRecords const& points, std::span<std::size_t const> selected) {
    shots.reserve(selected.size());
    for (std::size_t const point : selected) {
      shots.emplace_back(points[point].time(), static_cast<std::int64_t>(shots.size()));
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

void append(std::vector<std::uint8_t>& bytes, std::span<std::uint8_t const> record) {
  bytes.insert(bytes.end(), record.begin(), record.end());
}

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
  prepareTable(points.count());
  selectWaveforms(points, found);
  assignOwners(points, found);
  for (std::uint64_t const cell : cellsNow) {
    seenNow.clearNear(cell);
  }
  cellsNow.clear();
  return found;
}

void PacketSelector::prepareTable(std::size_t points) {
  packets.clear();
  packetOfPoint.assign(points, 0);
  selected.clear();
  slots.assign(std::bit_ceil(2 * points + 1), Slot());
}

/// Index of the packet at the offset, new if `point` is the first one with it.
std::size_t PacketSelector::packetAt(std::uint64_t offset, std::size_t point) {
  std::size_t const mask = slots.size() - 1;
  std::size_t place = static_cast<std::size_t>(mixed(offset)) & mask;
  while (slots[place].packet != 0 && slots[place].offset != offset) {
    place = (place + 1) & mask;
  }
  if (slots[place].packet == 0) {
    packets.push_back({point});
    slots[place] = {offset, packets.size()};
  }
  return static_cast<std::size_t>(slots[place].packet - 1);
}

bool PacketSelector::isInside(std::uint64_t offset, std::int64_t size) const {
  auto const bytes = static_cast<std::uint64_t>(size);
  return bytes <= rules.dataBytes && offset >= rules.headerBytes && offset <= rules.dataBytes - bytes;
}

void PacketSelector::selectWaveforms(PointRecords const& points, Selection& found) {
  found.waveforms.reserve(points.count() * layout.size);
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
    packets[packet].waveform = static_cast<std::int64_t>(selected.size());
    selected.push_back(i);
    append(found.waveforms, points.record(i));
  }
}

/// Points of a packet belong to its waveform if they also have its GPS time; without times, if they follow
/// each other in the file. Points without a packet belong to the pulse with their GPS time.
void PacketSelector::assignOwners(PointRecords const& points, Selection& found) {
  ShotsByTime const shots(
      points, found.withoutPacket > 0 && !rules.withoutTimes ? selected : std::vector<std::size_t>());
  std::vector<std::int64_t> owners(points.count(), none);
  std::vector<std::size_t> runs(rules.withoutTimes ? points.count() : 0);  // of points with equal packet
  std::vector<std::size_t> ends(selected.size() + 1);  // of the points of each waveform, counted first
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
  for (std::size_t waveform = 0; waveform < selected.size(); ++waveform) {
    ends[waveform + 1] += ends[waveform];
  }
  std::vector<std::size_t> order(ends.back());
  found.owners.resize(order.size());
  for (std::size_t i = 0; i < points.count(); ++i) {
    if (owners[i] != none) {
      std::size_t const place = ends[static_cast<std::size_t>(owners[i])]++;
      order[place] = i;
      found.owners[place] = owners[i];
    }
  }
  found.pulses.reserve(order.size() * layout.size);
  for (std::size_t const i : order) {
    append(found.pulses, points.record(i));
  }
}

}  // namespace Las
