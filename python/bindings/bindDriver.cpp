#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/driver/ShotRules.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>

#include "Bindings.h"
#include "NumpyColumn.h"
#include "ResultColumns.h"
#include "SignalPoll.h"

namespace nb = nanobind;
using FullWaveform::FWFModus;
using FullWaveform::RunMonitor;
using FullWaveform::ScannerDevice;

namespace {

using Driver = FullWaveform::PeakDetectionFamily<unsigned short>;
using Samples = nb::ndarray<unsigned short const, nb::ndim<2>, nb::device::cpu>;
using Block = Kestra::MemArray<2, unsigned short>;

/// A driver and the lock that keeps two Python threads from using it at once.
struct SharedDriver {
  SharedDriver(std::uint32_t mode, ScannerDevice const& scanner, std::string const& directory,
               std::string const& inputFile, unsigned int longestWaveform, std::uint64_t workLimit,
               std::shared_ptr<RunMonitor> monitor)
      : driver(FWFModus{mode}, scanner, directory, inputFile, longestWaveform) {
    driver.work.limit = workLimit;
    driver.work.monitor = std::move(monitor);
  }

  Driver driver;
  std::mutex inUse;
};

/// The samples without a copy; non-contiguous rows (a slice of a wider array) are read through an accessor.
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

std::string recordOf(FullWaveform::RunStatistics const& statistics) {
  return statistics.isSuspicious() ? statistics.record() : std::string();
}

nb::dict statisticsTable(Results::ResultColumns const& columns) {
  FullWaveform::RunStatistics const& statistics = columns.statistics;
  nb::dict table;
  table["mergedIntoOtherChannel"] = columns.mergedIntoOtherChannel;
  table["tooLongToDeconvolve"] = columns.tooLongToDeconvolve;
  table["tooComplex"] = columns.tooComplex;
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

/// The arrays of one block; all but the samples have one value per row.
struct BlockArrays {
  Samples samples;
  InputColumn<std::uint16_t> counts;
  InputColumn<double> shotTimes;
  InputColumn<double> sblTimes;
  InputColumn<std::uint8_t> channelFlags;
  InputColumn<std::int32_t> noises;

  void extract(Driver& driver, Driver::PartReceiver const& receive) const {
    driver.applyInParts(viewOf(samples), columnView<unsigned short>(counts), columnView(shotTimes),
                        columnView(sblTimes), columnView<unsigned char>(channelFlags),
                        std::span<int const>(noises.data(), noises.shape(0)), receive);
  }
};

Results::ResultColumns extract(SharedDriver& shared, BlockArrays const& block) {
  auto poll = signalPoll();
  nb::gil_scoped_release const release;
  std::scoped_lock const lock(shared.inUse);
  shared.driver.work.poll = std::move(poll);
  Results::ResultColumns columns(block.samples.shape(0));
  block.extract(shared.driver,
                [&columns](FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& report) {
                  columns.append(shots, report);
                });
  columns.finish(shared.driver.lastBlock());
  return columns;
}

nb::dict apply(SharedDriver& shared, Samples const& samples, InputColumn<std::uint16_t> const& counts,
               InputColumn<double> const& shotTimes, InputColumn<double> const& sblTimes,
               InputColumn<std::uint8_t> const& channelFlags, InputColumn<std::int32_t> const& noises,
               std::string const& /*text*/) {
  Results::ResultColumns columns =
      extract(shared, {samples, counts, shotTimes, sblTimes, channelFlags, noises});
  nb::dict result;
  result["statistics"] = statisticsTable(columns);
  result["record"] = recordOf(columns.statistics);
  result["row_states"] = numpyColumn<std::uint8_t>(std::move(columns.rowStates));
  result["waveforms"] = numpyColumns(columns.waveforms);
  result["segments"] = numpyColumns(columns.segments);
  result["peaks"] = numpyColumns(columns.echoes);
  return result;
}

/// State of every row of a block, and the text report of its waveform if that is in the shot map.
struct RowReports {
  std::vector<std::uint8_t> states;
  std::vector<std::optional<std::string>> texts;
};

RowReports reportRows(SharedDriver& shared, BlockArrays const& block, bool extent) {
  auto poll = signalPoll();
  nb::gil_scoped_release const release;
  std::scoped_lock const lock(shared.inUse);
  shared.driver.work.poll = std::move(poll);
  RowReports reports;
  reports.texts.resize(block.samples.shape(0));
  double const speed = shared.driver.onlineEvaluation.scanner.group_velocity;
  block.extract(shared.driver,
                [&](FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& /*report*/) {
                  for (auto const& [shotTime, shot] : shots) {
                    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
                      reports.texts[shot.rows[i]] =
                          extent ? shot.waves[i]->printLengthAtMaxAmplitude(speed) : shot.waves[i]->print();
                    }
                  }
                });
  reports.states = Results::rowStatesOf(shared.driver.lastBlock());
  return reports;
}

nb::tuple reports(SharedDriver& shared, Samples const& samples, InputColumn<std::uint16_t> const& counts,
                  InputColumn<double> const& shotTimes, InputColumn<double> const& sblTimes,
                  InputColumn<std::uint8_t> const& channelFlags, InputColumn<std::int32_t> const& noises,
                  bool extent) {
  RowReports rows = reportRows(shared, {samples, counts, shotTimes, sblTimes, channelFlags, noises}, extent);
  return nb::make_tuple(numpyColumn<std::uint8_t>(std::move(rows.states)), std::move(rows.texts));
}

FullWaveform::SampleRows rowsOf(Samples const& samples, InputColumn<std::uint16_t> const& counts) {
  return {samples.data(), samples.stride(0), std::span(counts.data(), counts.shape(0))};
}

template <class T>
std::span<T const> spanOf(InputColumn<T> const& column) {
  return {column.data(), column.shape(0)};
}

std::vector<std::uint8_t> asBytes(std::vector<FullWaveform::EchoState> const& states) {
  std::vector<std::uint8_t> bytes(states.size());
  std::transform(states.begin(), states.end(), bytes.begin(),
                 [](FullWaveform::EchoState state) { return static_cast<std::uint8_t>(state); });
  return bytes;
}

nb::tuple reportOfRows(Samples const& samples, InputColumn<std::uint16_t> const& counts,
                       InputColumn<double> const& shotTimes) {
  FullWaveform::BlockReport report;
  {
    nb::gil_scoped_release const release;
    report = FullWaveform::reportOfRows(rowsOf(samples, counts), spanOf(shotTimes));
  }
  return nb::make_tuple(numpyColumn<std::uint8_t>(Results::rowStatesOf(report)), recordOf(report.statistics));
}

nb::tuple applyEchoRules(Samples const& samples, InputColumn<std::uint16_t> const& counts,
                         InputColumn<double> const& shotTimes, InputColumn<double> const& sblTimes,
                         InputColumn<std::uint8_t> const& channelFlags, InputColumn<std::int64_t> const& rows,
                         InputColumn<double> const& positions, InputColumn<double> const& amplitudes,
                         ScannerDevice const& scanner, std::shared_ptr<RunMonitor> monitor) {
  FullWaveform::EchoRules rules;
  FullWaveform::WorkMeter work;
  work.monitor = std::move(monitor);
  work.poll = signalPoll();
  {
    nb::gil_scoped_release const release;
    rules = FullWaveform::applyEchoRules(
        rowsOf(samples, counts), spanOf(shotTimes), spanOf(sblTimes), spanOf(channelFlags),
        {spanOf(rows), spanOf(positions), spanOf(amplitudes)}, scanner, work);
  }
  return nb::make_tuple(numpyColumn<double>(std::move(rules.times)),
                        numpyColumn<std::uint8_t>(asBytes(rules.states)));
}

nb::dict resultColumns() {
  nb::dict tables;
  tables["waveforms"] = columnTypes(Results::WaveformTable());
  tables["segments"] = columnTypes(Results::SegmentTable());
  tables["peaks"] = columnTypes(Results::EchoTable());
  tables["on_board"] = columnTypes(Results::OnBoardTable());
  return tables;
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
      .value("MERGED_INTO_OTHER_CHANNEL", RowState::MergedIntoOtherChannel)
      .value("TOO_COMPLEX", RowState::TooComplex);
}

void bindShotRules(nb::module_& module) {
  using FullWaveform::EchoState;
  nb::enum_<EchoState>(module, "EchoState", nb::is_arithmetic(), "What becomes of an echo of a shot.")
      .value("KEPT", EchoState::Kept)
      .value("AFTER_PULSE", EchoState::AfterPulse)
      .value("IN_OTHER_CHANNEL", EchoState::InOtherChannel);
  module.def("report_of_rows", &reportOfRows, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
             nb::arg("shot_times").noconvert(),
             "State of every row for a method outside the driver: kept, duplicate or invalid; and the "
             "statistics of the block as text, empty unless it is suspicious.");
  module.def("apply_echo_rules", &applyEchoRules, nb::arg("samples").noconvert(),
             nb::arg("counts").noconvert(), nb::arg("shot_times").noconvert(),
             nb::arg("sbl_times").noconvert(), nb::arg("channel_flags").noconvert(),
             nb::arg("rows").noconvert(), nb::arg("positions").noconvert(), nb::arg("amplitudes").noconvert(),
             nb::arg("scanner"), nb::arg("monitor") = nb::none(),
             "Times (s) and states of echoes that a method outside the driver found. `rows` is ascending.");
}

void bindWork(nb::module_& module) {
  module.attr("UNLIMITED_WORK") = FullWaveform::WorkMeter::unlimited;
  nb::exception<FullWaveform::Cancelled>(module, "Cancelled");
  nb::class_<RunMonitor>(module, "RunMonitor",
                         "Cancels the drivers that share it, and counts their waveforms.")
      .def(nb::init<>())
      .def("cancel", &RunMonitor::cancel)
      .def_prop_ro("cancelled", &RunMonitor::isCancelled)
      .def_prop_ro("waveforms_done", &RunMonitor::waveformsDone);
}

}  // namespace

void bindDriver(nb::module_& module) {
  module.attr("RESULT_COLUMNS") = resultColumns();
  bindMode(module);
  bindRowState(module);
  bindWork(module);
  bindShotRules(module);
  nb::class_<SharedDriver>(module, "PeakDetectionFamily", "The driver; arrays are read without a copy.")
      .def(nb::init<std::uint32_t, ScannerDevice const&, std::string const&, std::string const&, unsigned int,
                    std::uint64_t, std::shared_ptr<RunMonitor>>(),
           nb::arg("mode"), nb::arg("scanner"), nb::arg("output_directory"), nb::arg("input_file"),
           nb::arg("longest_waveform"), nb::arg("work_limit") = FullWaveform::WorkMeter::unlimited,
           nb::arg("monitor") = nb::none())
      .def_prop_ro("message", [](SharedDriver const& self) { return self.driver.message; })
      .def("apply", &apply, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
           nb::arg("shot_times").noconvert(), nb::arg("sbl_times").noconvert(),
           nb::arg("channel_flags").noconvert(), nb::arg("noise").noconvert(), nb::arg("text"))
      .def("reports", &reports, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
           nb::arg("shot_times").noconvert(), nb::arg("sbl_times").noconvert(),
           nb::arg("channel_flags").noconvert(), nb::arg("noise").noconvert(), nb::arg("extent"),
           "Extracts a block; state of every row and text report of its waveform, None without one. With "
           "`extent` the report is one line on the extent of the echoes.");
}
