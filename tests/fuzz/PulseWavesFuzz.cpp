// The decoders of compressed PulseWaves files, with arbitrary bytes and layouts.
#include <array>
#include <span>

#include <native/pulsewaves/ChunkTable.h>
#include <native/pulsewaves/PulseChunk.h>
#include <native/pulsewaves/PulseWaveforms.h>

#include "support/Bytes.h"
#include "support/Require.h"

namespace PulseWaves {
namespace {

using FullWaveform::Fuzz::Bytes;
using FullWaveform::Fuzz::require;

constexpr std::size_t maxPulses = 300;

void decodeTable(Bytes& bytes) {
  bool const withPulses = bytes.flag();
  std::size_t const chunks = bytes.raw<std::uint16_t>();
  std::vector<std::uint8_t> const coded = bytes.values<std::uint8_t>(bytes.remaining());
  ChunkTable const table = decodeChunkTable(coded, chunks, withPulses);
  require(table.bytes.size() <= chunks && table.consumed <= coded.size(), "a table has at most its entries");
  require(!table.intact || table.bytes.size() == chunks, "an intact table has all entries");
}

void decodeChunk(Bytes& bytes) {
  static constexpr std::array<Item, 4> all{Item{ItemType::pulse, 48}, Item{ItemType::sourceNumber16, 2},
                                           Item{ItemType::sourceNumber32, 4}, Item{ItemType::extraBytes, 3}};
  std::span<Item const> const items = std::span(all).first(1 + bytes.upTo(3));
  std::size_t size = 0;
  for (Item const& item : items) {
    size += item.bytes;
  }
  std::size_t const pulses = bytes.raw<std::uint16_t>() % maxPulses;
  std::vector<std::uint8_t> const chunk = bytes.values<std::uint8_t>(bytes.remaining());
  PulseChunk const found = decodePulseChunk(chunk, items, pulses);
  require(found.records.size() == found.pulses * size, "whole records");
  require(found.consumed <= chunk.size(), "no byte after the end");
  require(found.pulses == pulses || found.truncated || found.damaged, "all pulses, or a reason");
}

void decodeSamples(Bytes& bytes) {
  static constexpr std::array<unsigned int, 4> bits{0, 8, 16, 32};
  std::vector<Sampling> samplings(bytes.upTo(3));
  for (Sampling& sampling : samplings) {
    sampling = {bits[bytes.upTo(2)], bits[bytes.upTo(3)], bits[bytes.upTo(3)],
                bytes.upTo(5),       bytes.byte(),        bits[1 + bytes.upTo(1)]};
  }
  std::vector<std::int64_t> offsets(bytes.upTo(12));
  std::vector<std::int64_t> ends(offsets.size());
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    offsets[i] = bytes.raw<std::int16_t>() % 512;
    ends[i] = bytes.flag() ? offsets[i] + bytes.byte() : bytes.raw<std::int16_t>();
  }
  std::size_t const extra = bytes.upTo(9);
  std::vector<std::uint8_t> const data = bytes.values<std::uint8_t>(bytes.remaining());
  DecodedWaveforms const found = decodeWaveforms(data, offsets, ends, extra, samplings);
  require(found.states.size() <= offsets.size(), "at most one state per pulse");
  require(offsets.empty() || !found.states.empty(), "at least one pulse is visited");
  std::size_t last = 0;
  for (Segment const& segment : found.segments) {
    require(segment.pulse >= last && found.states[segment.pulse] == PulseState::complete,
            "segments belong to complete pulses in their order");
    require(segment.start + segment.count <= found.samples.size(), "all samples are there");
    last = segment.pulse;
  }
}

}  // namespace
}  // namespace PulseWaves

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FullWaveform::Fuzz::Bytes bytes(data, size);
  switch (bytes.upTo(2)) {
    case 0:
      PulseWaves::decodeTable(bytes);
      break;
    case 1:
      PulseWaves::decodeChunk(bytes);
      break;
    default:
      PulseWaves::decodeSamples(bytes);
      break;
  }
  return 0;
}
