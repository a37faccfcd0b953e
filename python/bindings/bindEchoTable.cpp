#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>

#include <fullwaveform/model/Peak.h>
#include <native/echotable/TableRows.h>

#include "Bindings.h"
#include "EchoTableColumns.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using namespace EchoTable;

namespace {

/// Arrays of equal length that Python passes by name; they live as long as this object.
class NamedArrays {
 public:
  explicit NamedArrays(nb::dict const& arrays) : arrays(arrays) {}

  /// The values of an array, converted to the type if it has another one; `perRow` values in each row.
  template <class Value>
  std::span<Value const> get(char const* name, std::size_t perRow = 1) {
    using Array = nb::ndarray<Value const, nb::c_contig, nb::device::cpu>;
    auto const array = nb::cast<Array>(arrays[name]);
    std::size_t const length = array.size() / perRow;
    rows = rows.value_or(length);
    if (length != *rows || array.size() % perRow != 0) {
      throw std::invalid_argument(std::string(name) + " has " + std::to_string(array.size()) +
                                  " values; expected " + std::to_string(*rows * perRow));
    }
    kept.emplace_back(array);
    return {array.data(), array.size()};
  }

 private:
  nb::dict const arrays;
  std::optional<std::size_t> rows;
  std::vector<nb::ndarray<nb::ro>> kept;
};

Waveforms waveformsOf(NamedArrays& arrays) {
  return {.shotTimes = arrays.get<double>("shot_times"),
          .samplingIntervals = arrays.get<double>("sampling_intervals"),
          .anchors = arrays.get<double>("anchor", 3),
          .locations = arrays.get<double>("location"),
          .directions = arrays.get<double>("direction", 3),
          .phases = arrays.get<double>("phase"),
          .scales = arrays.get<std::int64_t>("scale"),
          .halfWidths = arrays.get<double>("half_width"),
          .gpsTimes = arrays.get<double>("gps_time"),
          .scanAngles = arrays.get<float>("scan_angle"),
          .scanDirectionFlags = arrays.get<std::uint8_t>("scan_direction_flag"),
          .edgesOfFlightLine = arrays.get<std::uint8_t>("edge_of_flight_line"),
          .userData = arrays.get<std::uint8_t>("user_data"),
          .pointSourceIds = arrays.get<std::uint16_t>("point_source_id"),
          .numbers = arrays.get<std::int64_t>("waveform_numbers"),
          .channelFlags = arrays.get<std::uint8_t>("channel_flags"),
          .descriptors = arrays.get<std::uint8_t>("descriptors")};
}

DiscreteReturns returnsOf(NamedArrays& arrays) {
  return {.rows = arrays.get<std::int64_t>("rows"),
          .times = arrays.get<double>("times"),
          .classifications = arrays.get<std::uint8_t>("classification"),
          .returnNumbers = arrays.get<std::uint8_t>("return_number")};
}

/// A column of found echoes that a method may not have.
template <class Value>
struct FoundColumn {
  std::span<Value const> values;
  Value FoundEcho::* member;

  void read(std::size_t index, FoundEcho& echo) const {
    if (!values.empty()) {
      echo.*member = values[index];
    }
  }
};

/// The echoes that a method found, as columns by name.
class FoundColumns {
 public:
  explicit FoundColumns(nb::dict const& columns)
      : names(columns),
        arrays(columns),
        ofRows(arrays.get<std::int64_t>("row")),
        doubles{column("idx", &FoundEcho::position),
                column("library_idx", &FoundEcho::libraryPosition),
                column("time", &FoundEcho::time),
                column("height", &FoundEcho::height),
                column("std", &FoundEcho::sigma),
                column("sigma_position", &FoundEcho::sigmaPosition),
                column("sigma_height", &FoundEcho::sigmaHeight),
                column("sigma_fwhm", &FoundEcho::sigmaFwhm),
                column("significance", &FoundEcho::significance),
                column("reduced_chi_square", &FoundEcho::reducedChiSquare)},
        singles{column("amplitude", &FoundEcho::libraryDecibels),
                column("reflectance", &FoundEcho::reflectance)},
        bytes{column("type", &FoundEcho::type), column("quality", &FoundEcho::quality),
              column("fit_flags", &FoundEcho::fitFlags)} {}

  [[nodiscard]] std::span<std::int64_t const> rows() const { return ofRows; }

  [[nodiscard]] std::vector<FoundEcho> echoes() const {
    std::vector<FoundEcho> found(ofRows.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
      found[i].row = ofRows[i];
      for (auto const& one : doubles) {
        one.read(i, found[i]);
      }
      for (auto const& one : singles) {
        one.read(i, found[i]);
      }
      for (auto const& one : bytes) {
        one.read(i, found[i]);
      }
    }
    return found;
  }

 private:
  template <class Value>
  FoundColumn<Value> column(char const* name, Value FoundEcho::* member) {
    return {names.contains(name) ? arrays.get<Value>(name) : std::span<Value const>(), member};
  }

  nb::dict const names;
  NamedArrays arrays;
  std::span<std::int64_t const> ofRows;
  std::array<FoundColumn<double>, 10> doubles;
  std::array<FoundColumn<float>, 2> singles;
  std::array<FoundColumn<std::uint8_t>, 3> bytes;
};

template <class Rows>
void checkRows(Rows const& rows, std::size_t count) {
  for (std::int64_t const row : rows) {
    if (row < 0 || static_cast<std::size_t>(row) >= count) {
      throw std::invalid_argument("row " + std::to_string(row) + " is not one of the " +
                                  std::to_string(count) + " waveforms of the block");
    }
  }
}

constexpr auto deconvolved = static_cast<std::uint8_t>(FullWaveform::TYPE::RICHARDSON_LUCY);

nb::tuple echoTable(nb::dict const& waveformArrays, nb::dict const& echoColumns, nb::dict const& returnArrays,
                    double amplitudeUnit, double rangePerSecond, double positionOffset, bool keepsEmpty) {
  NamedArrays ofWaveforms(waveformArrays);
  NamedArrays ofReturns(returnArrays);
  Waveforms const waveforms = waveformsOf(ofWaveforms);
  DiscreteReturns const returns = nb::len(returnArrays) > 0 ? returnsOf(ofReturns) : DiscreteReturns();
  FoundColumns const found(echoColumns);
  Table table;
  TableColumns columns;
  {
    nb::gil_scoped_release const release;
    std::vector<FoundEcho> echoes = found.echoes();
    checkRows(found.rows(), waveforms.size());
    checkRows(returns.rows, waveforms.size());
    table = tableOf(waveforms, returns, echoes, {positionOffset, deconvolved, keepsEmpty});
    columns = TableColumns(table.rows.size());
    TableRecord record{&waveforms, &returns, amplitudeUnit, rangePerSecond, {}};
    for (std::size_t i = 0; i < table.rows.size(); ++i) {
      record.at = table.rows[i];
      columns.set(i, record);
    }
  }
  return nb::make_tuple(numpyColumns(columns), numpyColumn<std::int64_t>(std::move(table.echoCounts)));
}

}  // namespace

void bindEchoTable(nb::module_& module) {
  module.attr("RESULT_COLUMNS")["echo_table"] = columnTypes(TableColumns());
  module.def("echo_table", &echoTable, nb::arg("waveforms"), nb::arg("echoes"), nb::arg("returns"),
             nb::arg("amplitude_unit"), nb::arg("range_per_second"), nb::arg("position_offset"),
             nb::arg("keep_empty"),
             "Columns of the table of a block, and the number of echoes of each waveform. The arguments are "
             "arrays by name; `returns` is empty if echoes are not compared with discrete returns.");
}
