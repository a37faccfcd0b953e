#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

#include <nanobind/ndarray.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/vector.h>

#include <native/bytes/CopyRows.h>
#include <native/las/PacketSelection.h>
#include <native/las/PointColumns.h>
#include <native/las/PointSurvey.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;

namespace {

using Bytes = InputColumn<std::uint8_t>;
using Numbers = InputColumn<std::int64_t>;

template <class T>
std::span<T const> view(InputColumn<T> const& column) {
  return {column.data(), column.shape(0)};
}

std::array<std::int64_t, Las::PacketRules::descriptorCount> byDescriptor(Numbers const& numbers) {
  std::array<std::int64_t, Las::PacketRules::descriptorCount> table{};
  if (numbers.shape(0) != table.size()) {
    throw std::invalid_argument(std::to_string(numbers.shape(0)) + " descriptors; expected " +
                                std::to_string(table.size()));
  }
  std::copy_n(numbers.data(), table.size(), table.begin());
  if (std::any_of(table.begin(), table.end(), [](std::int64_t number) { return number < 0; })) {
    throw std::invalid_argument("negative size of a packet");
  }
  return table;
}

Las::Scaling scalingOf(InputColumn<double> const& scales, InputColumn<double> const& offsets) {
  if (scales.shape(0) != 3 || offsets.shape(0) != 3) {
    throw std::invalid_argument("expected three scales and three offsets");
  }
  Las::Scaling scaling{};
  std::copy_n(scales.data(), 3, scaling.scales.begin());
  std::copy_n(offsets.data(), 3, scaling.offsets.begin());
  return scaling;
}

nb::dict selectPackets(Las::PacketSelector& selector, Bytes const& points) {
  Las::Selection found;
  {
    nb::gil_scoped_release const release;
    found = selector.select(view(points));
  }
  nb::dict dict;
  dict["waveforms"] = numpyColumn<std::int64_t>(std::move(found.waveforms));
  dict["times"] = numpyColumn<double>(std::move(found.times));
  dict["pulses"] = numpyColumn<std::int64_t>(std::move(found.pulses));
  dict["owners"] = numpyColumn<std::int64_t>(std::move(found.owners));
  dict["faulty"] = numpyColumn<std::int64_t>(std::move(found.faulty));
  dict["faults"] = numpyColumn<std::uint8_t>(std::move(found.faults));
  dict["without_packet"] = found.withoutPacket;
  dict["sharing"] = found.sharing;
  return dict;
}

/// Runs of records, and the indices of the chosen points of each.
using Runs = std::vector<std::pair<Bytes, Numbers>>;

Las::PointList chosenPoints(Runs const& runs, int format, std::size_t size) {
  Las::PointList points(Las::PointLayout::of(format, size));
  for (auto const& [bytes, indices] : runs) {
    points.add(view(bytes), view(indices));
  }
  return points;
}

nb::dict waveformColumns(Runs const& runs, int format, std::size_t size, InputColumn<double> const& scales,
                         InputColumn<double> const& offsets) {
  Las::Scaling const scaling = scalingOf(scales, offsets);
  Las::WaveformColumns columns;
  {
    nb::gil_scoped_release const release;
    columns = Las::waveformColumns(chosenPoints(runs, format, size), scaling);
  }
  nb::dict dict;
  dict["anchors"] = numpyColumn<double>(std::move(columns.anchors));
  dict["locations"] = numpyColumn<double>(std::move(columns.locations));
  dict["directions"] = numpyColumn<double>(std::move(columns.directions));
  dict["times"] = numpyColumn<double>(std::move(columns.times));
  dict["scan_angles"] = numpyColumn<float>(std::move(columns.scanAngles));
  dict["scan_directions"] = numpyColumn<std::uint8_t>(std::move(columns.scanDirections));
  dict["edges"] = numpyColumn<std::uint8_t>(std::move(columns.edges));
  dict["user_data"] = numpyColumn<std::uint8_t>(std::move(columns.userData));
  dict["sources"] = numpyColumn<std::uint16_t>(std::move(columns.sources));
  dict["packet_offsets"] = numpyColumn<std::int64_t>(std::move(columns.packetOffsets));
  dict["descriptors"] = numpyColumn<std::uint8_t>(std::move(columns.descriptors));
  return dict;
}

nb::dict returnColumns(Runs const& runs, Numbers const& owners, int format, std::size_t size,
                       InputColumn<double> const& scales, InputColumn<double> const& offsets) {
  Las::Scaling const scaling = scalingOf(scales, offsets);
  Las::ReturnColumns columns;
  {
    nb::gil_scoped_release const release;
    columns = Las::returnColumns(chosenPoints(runs, format, size), view(owners), scaling);
  }
  nb::dict dict;
  dict["points"] = numpyColumn<std::int64_t>(std::move(columns.points));
  dict["owners"] = numpyColumn<std::int64_t>(std::move(columns.owners));
  dict["ordered"] = columns.areOrdered;
  dict["places"] = numpyColumn<double>(std::move(columns.places));
  dict["locations"] = numpyColumn<double>(std::move(columns.locations));
  dict["descriptors"] = numpyColumn<std::uint8_t>(std::move(columns.descriptors));
  dict["withheld"] = numpyColumn<bool>(std::move(columns.withheld));
  dict["numbers"] = numpyColumn<std::uint8_t>(std::move(columns.numbers));
  dict["counts"] = numpyColumn<std::uint8_t>(std::move(columns.counts));
  dict["intensities"] = numpyColumn<std::uint16_t>(std::move(columns.intensities));
  dict["classes"] = numpyColumn<std::uint8_t>(std::move(columns.classes));
  return dict;
}

using Rows = nb::ndarray<std::uint8_t, nb::ndim<2>, nb::c_contig, nb::device::cpu>;

void copyRowsInto(Bytes const& source, Numbers const& starts, Numbers const& rows, Rows const& target) {
  nb::gil_scoped_release const release;
  copyRows(view(source), view(starts), view(rows), target.shape(1),
           {target.data(), target.shape(0) * target.shape(1)});
}

}  // namespace

void bindLas(nb::module_& module) {
  nb::enum_<Las::Fault>(module, "PacketFault", nb::is_arithmetic(),
                        "Why the waveform of a point is unreadable.")
      .value("OUTSIDE", Las::Fault::outside)
      .value("OVERLAPPING", Las::Fault::overlapping)
      .value("WRONG_SIZE", Las::Fault::wrongSize)
      .value("TOO_LONG", Las::Fault::tooLong)
      .value("NO_TIME", Las::Fault::noTime)
      .value("NOT_GEOREFERENCED", Las::Fault::notGeoreferenced);
  nb::class_<Las::PointSurvey>(module, "PointSurvey", "What is known of points that were all visited once.")
      .def(
          "__init__",
          [](Las::PointSurvey* survey, int format, std::size_t size) {
            new (survey) Las::PointSurvey(Las::PointLayout::of(format, size));
          },
          nb::arg("format"), nb::arg("size"))
      .def(
          "add",
          [](Las::PointSurvey& survey, Bytes const& points) {
            nb::gil_scoped_release const release;
            survey.add(view(points));
          },
          nb::arg("points").noconvert())
      .def_prop_ro("ascending", &Las::PointSurvey::isAscending)
      .def_prop_ro("without_times", &Las::PointSurvey::isWithoutTimes)
      .def_prop_ro("descriptors", &Las::PointSurvey::descriptors)
      .def_prop_ro("pairs_of_shots", &Las::PointSurvey::pairsOfShots);
  nb::class_<Las::PacketSelector>(module, "PacketSelector", "Selects the waveforms of points, each once.")
      .def(
          "__init__",
          [](Las::PacketSelector* selector, int format, std::size_t size, std::uint64_t dataBytes,
             std::uint64_t headerBytes, Numbers const& packetBytes, Numbers const& sampleCounts,
             std::int64_t maxSamples, bool withoutTimes) {
            new (selector) Las::PacketSelector(Las::PointLayout::of(format, size),
                                               {dataBytes, headerBytes, byDescriptor(packetBytes),
                                                byDescriptor(sampleCounts), maxSamples, withoutTimes});
          },
          nb::arg("format"), nb::arg("size"), nb::arg("data_bytes"), nb::arg("header_bytes"),
          nb::arg("packet_bytes").noconvert(), nb::arg("sample_counts").noconvert(), nb::arg("max_samples"),
          nb::arg("without_times"))
      .def("select", &selectPackets, nb::arg("points").noconvert());
  module.def("las_waveform_columns", &waveformColumns, nb::arg("runs"), nb::arg("format"), nb::arg("size"),
             nb::arg("scales").noconvert(), nb::arg("offsets").noconvert(),
             "Fields of the points of waveforms.");
  module.def("las_return_columns", &returnColumns, nb::arg("runs"), nb::arg("owners").noconvert(),
             nb::arg("format"), nb::arg("size"), nb::arg("scales").noconvert(),
             nb::arg("offsets").noconvert(), "Fields of the points of pulses as discrete returns.");
  module.def("copy_rows", &copyRowsInto, nb::arg("source").noconvert(), nb::arg("starts").noconvert(),
             nb::arg("rows").noconvert(), nb::arg("target").noconvert(),
             "Copies runs of bytes of equal length.");
}
