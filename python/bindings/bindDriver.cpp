#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>

#include "Bindings.h"
#include "NumpyColumn.h"
#include "ResultColumns.h"

namespace nb = nanobind;
using FullWaveform::FWFModus;
using FullWaveform::ScannerDevice;

namespace {

using Driver = FullWaveform::PeakDetectionFamily<unsigned short>;
using Samples = nb::ndarray<unsigned short const, nb::ndim<2>, nb::device::cpu>;
using Block = Kestra::MemArray<2, unsigned short>;

/// A driver and the lock that keeps two Python threads from using it at once.
struct SharedDriver {
  SharedDriver(std::uint32_t mode, ScannerDevice const& scanner, std::string const& directory,
               std::string const& inputFile, unsigned int longestWaveform)
      : driver(FWFModus{mode}, scanner, directory, inputFile, longestWaveform) {}

  Driver driver;
  std::mutex inUse;
};

/// Looks at the samples where they are. Rows that do not follow each other in memory (a slice of a wider
/// array) are read through an accessor.
Holdex::StrongPtr<Block> viewOf(Samples const& samples) {
  Block::Shape const shape{samples.shape(0), samples.shape(1)};
  unsigned short const* const first = samples.data();
  std::int64_t const step = samples.stride(0);
  if (step == static_cast<std::int64_t>(shape[1])) {
    return Holdex::makeStrong<Block>(shape, first);
  }
  return Holdex::makeStrong<Block>(shape, Block::RowAccessor([first, step](std::size_t row) {
                                     return first + static_cast<std::int64_t>(row) * step;
                                   }));
}

nb::dict waveformTable(ResultColumns& columns) {
  nb::dict table;
  table["row"] = numpyColumn(std::move(columns.row));
  table["isLowPower"] = numpyColumn(std::move(columns.isLowPower));
  table["shotTime"] = numpyColumn(std::move(columns.shotTime));
  table["sblTime"] = numpyColumn(std::move(columns.sblTime));
  table["damping"] = numpyColumn(std::move(columns.damping));
  table["idxOfMaxAmplitude"] = numpyColumn(std::move(columns.idxOfMaxAmplitude));
  table["maxAmplitude"] = numpyColumn(std::move(columns.maxAmplitude));
  table["binShift"] = numpyColumn(std::move(columns.binShift));
  table["length"] = numpyColumn(std::move(columns.length));
  table["noise"] = numpyColumn(std::move(columns.noise));
  table["maxAmplitudeDB"] = numpyColumn(std::move(columns.maxAmplitudeDB));
  table["timeOfMaxAmplitude"] = numpyColumn(std::move(columns.timeOfMaxAmplitude));
  table["online"] = numpyColumn(std::move(columns.online));
  table["globalStart"] = numpyColumn(std::move(columns.globalStart));
  table["globalEnd"] = numpyColumn(std::move(columns.globalEnd));
  table["lengthCropped"] = numpyColumn(std::move(columns.lengthCropped));
  table["afterPulseFrom"] = numpyColumn(std::move(columns.afterPulseFrom));
  table["afterPulseTo"] = numpyColumn(std::move(columns.afterPulseTo));
  table["segmentCount"] = numpyColumn(std::move(columns.segmentCount));
  table["peakCount"] = numpyColumn(std::move(columns.peakCount));
  return table;
}

nb::dict segmentTable(ResultColumns& columns) {
  nb::dict table;
  table["waveform"] = numpyColumn(std::move(columns.segmentWaveform));
  table["start"] = numpyColumn(std::move(columns.segmentStart));
  table["end"] = numpyColumn(std::move(columns.segmentEnd));
  return table;
}

nb::dict peakTable(ResultColumns& columns) {
  nb::dict table;
  table["waveform"] = numpyColumn(std::move(columns.peakWaveform));
  table["row"] = numpyColumn(std::move(columns.peakRow));
  table["amplitude"] = numpyColumn(std::move(columns.amplitude));
  table["amplitudeCounts"] = numpyColumn(std::move(columns.amplitudeCounts));
  table["idx"] = numpyColumn(std::move(columns.idx));
  table["time"] = numpyColumn(std::move(columns.time));
  table["quality"] = numpyColumn(std::move(columns.quality));
  table["type"] = numpyColumn(std::move(columns.type));
  table["std"] = numpyColumn(std::move(columns.width));
  table["classification"] = numpyColumn(std::move(columns.classification));
  table["reflectance"] = numpyColumn(std::move(columns.reflectance));
  return table;
}

nb::dict statisticsTable(ResultColumns const& columns) {
  FullWaveform::RunStatistics const& statistics = columns.statistics;
  nb::dict table;
  table["mergedIntoOtherChannel"] = columns.mergedIntoOtherChannel;
  table["tooLongToDeconvolve"] = columns.tooLongToDeconvolve;
  table["numberOfWaves"] = statistics.numberOfWaves;
  table["signalTooLow"] = statistics.signalTooLow;
  table["duplicates"] = statistics.duplicates;
  table["countNaNs"] = statistics.countNaNs;
  nb::list splits;
  for (std::uint32_t const count : statistics.splitCounts) {
    splits.append(count);
  }
  table["splitCounts"] = nb::tuple(splits);
  table["suspicious"] = statistics.isSuspicious();
  return table;
}

ResultColumns extract(SharedDriver& shared, Samples const& samples, Column<std::uint16_t> const& counts,
                      Column<double> const& shotTimes, Column<double> const& sblTimes,
                      Column<std::uint8_t> const& channelFlags, int noise, std::string const& text) {
  nb::gil_scoped_release const release;
  std::scoped_lock const lock(shared.inUse);
  auto const shots =
      shared.driver.apply(viewOf(samples), columnView<unsigned short>(counts), columnView(shotTimes),
                          columnView(sblTimes), columnView<unsigned char>(channelFlags), noise, text);
  return {shots, shared.driver.lastBlock()};
}

nb::dict apply(SharedDriver& shared, Samples const& samples, Column<std::uint16_t> const& counts,
               Column<double> const& shotTimes, Column<double> const& sblTimes,
               Column<std::uint8_t> const& channelFlags, int noise, std::string const& text) {
  ResultColumns columns = extract(shared, samples, counts, shotTimes, sblTimes, channelFlags, noise, text);
  nb::dict result;
  result["statistics"] = statisticsTable(columns);
  result["record"] = columns.statistics.isSuspicious() ? columns.statistics.record() : std::string();
  result["row_states"] = numpyColumn(std::move(columns.rowState));
  result["waveforms"] = waveformTable(columns);
  result["segments"] = segmentTable(columns);
  result["peaks"] = peakTable(columns);
  return result;
}

void bindMode(nb::module_& module) {
  nb::enum_<FWFModus>(module, "Mode", nb::is_arithmetic(), "Extraction method of a driver.")
      .value("THREE_POINT", FWFModus::ThreePoint)
      .value("DECOMPOSITION", FWFModus::Decomposition)
      .value("DECONVOLUTION", FWFModus::Deconvolution)
      .value("HYBRID", FWFModus::Hybrid)
      .def_prop_ro(
          "title",
          // The library's name starts with a blank, to be appended to a label.
          [](FWFModus mode) { return FullWaveform::getNameOfModus(mode).substr(1); }, "Display name.");
}

void bindRowState(nb::module_& module) {
  using FullWaveform::RowState;
  nb::enum_<RowState>(module, "RowState", nb::is_arithmetic(), "Outcome of one row of a block.")
      .value("KEPT", RowState::Kept)
      .value("SIGNAL_TOO_LOW", RowState::SignalTooLow)
      .value("DUPLICATE", RowState::Duplicate)
      .value("INVALID_ROW", RowState::InvalidRow)
      .value("TOO_LONG_TO_DECONVOLVE", RowState::TooLongToDeconvolve)
      .value("MERGED_INTO_OTHER_CHANNEL", RowState::MergedIntoOtherChannel);
}

}  // namespace

void bindDriver(nb::module_& module) {
  bindMode(module);
  bindRowState(module);
  nb::class_<SharedDriver>(module, "PeakDetectionFamily", "The driver; arrays are read where they are.")
      .def(nb::init<std::uint32_t, ScannerDevice const&, std::string const&, std::string const&,
                    unsigned int>(),
           nb::arg("mode"), nb::arg("scanner"), nb::arg("output_directory"), nb::arg("input_file"),
           nb::arg("longest_waveform"))
      .def_prop_ro("message", [](SharedDriver const& self) { return self.driver.message; })
      .def("apply", &apply, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
           nb::arg("shot_times").noconvert(), nb::arg("sbl_times").noconvert(),
           nb::arg("channel_flags").noconvert(), nb::arg("noise"), nb::arg("text"));
}
