// Points of LAS files with arbitrary fields, and packets with arbitrary places.
#include <algorithm>
#include <set>

#include <native/las/PacketSelection.h>
#include <native/las/PointColumns.h>
#include <native/las/PointSurvey.h>

#include "support/Bytes.h"
#include "support/Require.h"

namespace Las {
namespace {

using FullWaveform::Fuzz::Bytes;
using FullWaveform::Fuzz::require;

constexpr std::array<int, 4> formats{4, 5, 9, 10};

PacketRules arbitraryRules(Bytes& bytes) {
  PacketRules rules;
  rules.dataBytes = bytes.raw<std::uint16_t>();
  rules.headerBytes = 60;
  for (std::size_t descriptor = 1; descriptor < 8; ++descriptor) {
    rules.packetBytes[descriptor] = bytes.byte();
    rules.sampleCounts[descriptor] = bytes.byte();
  }
  rules.maxSamples = 100;
  rules.withoutTimes = bytes.flag();
  return rules;
}

void checkSelection(PointRecords const& points, PacketRules const& rules, PointList const& waveforms,
                    PointList const& pulses, Selection const& found) {
  require(pulses.count() == found.owners.size(), "an owner for each point of a pulse");
  require(found.withoutPacket + found.sharing + found.faults.size() + waveforms.count() == points.count(),
          "every point is counted once");
  std::int64_t last = 0;
  for (std::int64_t const owner : found.owners) {
    require(owner >= last && owner < static_cast<std::int64_t>(waveforms.count()), "owners ascend");
    last = owner;
  }
  std::set<std::uint64_t> offsets;
  for (std::size_t i = 0; i < waveforms.count(); ++i) {
    std::uint64_t const offset = waveforms[i].packetOffset();
    require(offsets.insert(offset).second, "each packet once");
    require(offset >= rules.headerBytes && offset + waveforms[i].packetBytes() <= rules.dataBytes,
            "packets are inside");
  }
  for (std::int64_t const index : found.faulty) {
    require(index >= 0 && index < static_cast<std::int64_t>(points.count()), "faulty points exist");
  }
}

void read(Bytes& bytes) {
  int const format = formats[bytes.upTo(3)];
  PointLayout const layout = PointLayout::of(format, 67 + bytes.upTo(5));
  PacketRules const rules = arbitraryRules(bytes);
  PacketSelector selector(layout, rules);
  PointSurvey survey(layout);
  while (bytes.remaining() >= layout.size) {
    std::size_t const count = std::min<std::size_t>(1 + bytes.upTo(20), bytes.remaining() / layout.size);
    std::vector<std::uint8_t> const records = bytes.values<std::uint8_t>(count * layout.size);
    PointRecords const points(records, layout);
    survey.add(records);
    Selection const found = selector.select(records);
    PointList waveforms(layout);
    waveforms.add(records, found.waveforms);
    PointList pulses(layout);
    pulses.add(records, found.pulses);
    checkSelection(points, rules, waveforms, pulses, found);
    require(waveformColumns(waveforms, {}).times == found.times, "a row for each waveform");
    ReturnColumns const returns = returnColumns(pulses, found.owners, {});
    require(returns.counts.size() == returns.owners.size(), "an owner for each return");
    require(std::is_sorted(returns.owners.begin(), returns.owners.end()), "owners ascend");
  }
}

}  // namespace
}  // namespace Las

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FullWaveform::Fuzz::Bytes bytes(data, size);
  Las::read(bytes);
  return 0;
}
