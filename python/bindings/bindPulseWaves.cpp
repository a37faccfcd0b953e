#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <nanobind/ndarray.h>

#include <native/pulsewaves/ChunkTable.h>
#include <native/pulsewaves/PulseChunk.h>
#include <native/pulsewaves/PulseWaveforms.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;

namespace {

using Bytes = InputColumn<std::uint8_t>;
/// One row per item or sampling.
using Table = nb::ndarray<std::int64_t const, nb::ndim<2>, nb::c_contig, nb::device::cpu>;

std::span<std::uint8_t const> view(Bytes const& bytes) {
  return {bytes.data(), bytes.shape(0)};
}

void checkWidth(Table const& rows, std::size_t width) {
  if (rows.shape(1) != width) {
    throw std::invalid_argument("table of " + std::to_string(rows.shape(1)) + " columns; expected " +
                                std::to_string(width));
  }
}

nb::dict chunkTable(Bytes const& coded, std::size_t chunks, bool withPulses) {
  PulseWaves::ChunkTable table = PulseWaves::decodeChunkTable(view(coded), chunks, withPulses);
  nb::dict dict;
  dict["pulses"] = numpyColumn<std::uint32_t>(std::move(table.pulses));
  dict["bytes"] = numpyColumn<std::uint32_t>(std::move(table.bytes));
  dict["consumed"] = table.consumed;
  dict["intact"] = table.intact;
  return dict;
}

std::vector<PulseWaves::Item> itemsOf(Table const& rows) {
  checkWidth(rows, 2);
  std::vector<PulseWaves::Item> items;
  for (std::size_t i = 0; i < rows.shape(0); ++i) {
    std::int64_t const* const row = rows.data() + 2 * i;
    items.push_back({static_cast<PulseWaves::ItemType>(row[0]), static_cast<std::size_t>(row[1])});
  }
  return items;
}

nb::dict pulseChunk(Bytes const& chunk, Table const& itemRows, std::size_t pulses) {
  std::vector<PulseWaves::Item> const items = itemsOf(itemRows);
  PulseWaves::PulseChunk found;
  {
    nb::gil_scoped_release const release;
    found = PulseWaves::decodePulseChunk(view(chunk), items, pulses);
  }
  nb::dict dict;
  dict["records"] = numpyColumn<std::uint8_t>(std::move(found.records));
  dict["pulses"] = found.pulses;
  dict["consumed"] = found.consumed;
  dict["truncated"] = found.truncated;
  dict["damaged"] = found.damaged;
  return dict;
}

std::vector<PulseWaves::Sampling> samplingsOf(Table const& rows) {
  checkWidth(rows, 6);
  std::vector<PulseWaves::Sampling> samplings;
  for (std::size_t i = 0; i < rows.shape(0); ++i) {
    std::int64_t const* const row = rows.data() + 6 * i;
    PulseWaves::Sampling sampling;
    sampling.segmentBits = static_cast<unsigned int>(row[0]);
    sampling.durationBits = static_cast<unsigned int>(row[1]);
    sampling.countBits = static_cast<unsigned int>(row[2]);
    sampling.segments = static_cast<std::uint32_t>(row[3]);
    sampling.samples = static_cast<std::uint32_t>(row[4]);
    sampling.sampleBits = static_cast<unsigned int>(row[5]);
    samplings.push_back(sampling);
  }
  return samplings;
}

/// Segments, column by column.
struct Columns {
  std::vector<std::int64_t> pulse;
  std::vector<std::int64_t> sampling;
  std::vector<std::int64_t> start;
  std::vector<std::int64_t> count;
  std::vector<std::int32_t> duration;

  Columns() = default;
  explicit Columns(std::vector<PulseWaves::Segment> const& segments) {
    for (PulseWaves::Segment const& segment : segments) {
      pulse.push_back(static_cast<std::int64_t>(segment.pulse));
      sampling.push_back(static_cast<std::int64_t>(segment.sampling));
      start.push_back(static_cast<std::int64_t>(segment.start));
      count.push_back(static_cast<std::int64_t>(segment.count));
      duration.push_back(segment.duration);
    }
  }
};

/// Segments as columns; the samples of segment i are samples[start[i]], ... of all pulses.
nb::dict waveforms(Bytes const& bytes, InputColumn<std::int64_t> const& offsets,
                   InputColumn<std::int64_t> const& ends, std::size_t extraBytes, Table const& samplingRows) {
  std::vector<PulseWaves::Sampling> const samplings = samplingsOf(samplingRows);
  PulseWaves::DecodedWaveforms found;
  Columns columns;
  {
    nb::gil_scoped_release const release;
    found = PulseWaves::decodeWaveforms(view(bytes), {offsets.data(), offsets.shape(0)},
                                        {ends.data(), ends.shape(0)}, extraBytes, samplings);
    columns = Columns(found.segments);
  }
  nb::dict dict;
  dict["pulse"] = numpyColumn<std::int64_t>(std::move(columns.pulse));
  dict["sampling"] = numpyColumn<std::int64_t>(std::move(columns.sampling));
  dict["start"] = numpyColumn<std::int64_t>(std::move(columns.start));
  dict["count"] = numpyColumn<std::int64_t>(std::move(columns.count));
  dict["duration"] = numpyColumn<std::int32_t>(std::move(columns.duration));
  dict["samples"] = numpyColumn<std::uint16_t>(std::move(found.samples));
  dict["states"] = numpyColumn<std::uint8_t>(std::move(found.states));
  dict["sample_starts"] = numpyColumn<std::int64_t>(std::move(found.starts));
  return dict;
}

}  // namespace

void bindPulseWaves(nb::module_& module) {
  nb::enum_<PulseWaves::PulseState>(module, "PulseState", nb::is_arithmetic(),
                                    "Whether the samples of a compressed pulse could be decoded.")
      .value("COMPLETE", PulseWaves::PulseState::complete)
      .value("TRUNCATED", PulseWaves::PulseState::truncated)
      .value("DAMAGED", PulseWaves::PulseState::damaged)
      .value("TOO_LONG", PulseWaves::PulseState::tooLong);
  module.def("decode_chunk_table", &chunkTable, nb::arg("coded").noconvert(), nb::arg("chunks"),
             nb::arg("with_pulses"), "Entries of the chunk table of compressed pulses.");
  module.def("decode_pulse_chunk", &pulseChunk, nb::arg("chunk").noconvert(), nb::arg("items").noconvert(),
             nb::arg("pulses"), "Pulses of a chunk as records of an uncompressed file.");
  module.def("decode_waveforms", &waveforms, nb::arg("data").noconvert(), nb::arg("offsets").noconvert(),
             nb::arg("ends").noconvert(), nb::arg("extra_bytes"), nb::arg("samplings").noconvert(),
             "Segments and samples of compressed pulses.");
}
