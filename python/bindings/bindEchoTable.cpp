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
#include <fullwaveform/pulsefit/EchoUncertainty.h>
#include <fullwaveform/pulsefit/ThreePointUncertainty.h>
#include <native/echotable/TableRows.h>

#include "Bindings.h"
#include "EchoRows.h"
#include "EchoTableColumns.h"
#include "FittedRows.h"
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

  void read(std::span<std::int64_t const> indices, std::span<FoundEcho> echoes) const {
    if (values.empty()) {
      Value const missing = FoundEcho().*member;
      for (FoundEcho& echo : echoes) {
        echo.*member = missing;
      }
      return;
    }
    for (std::size_t i = 0; i < indices.size(); ++i) {
      echoes[i].*member = values[static_cast<std::size_t>(indices[i])];
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

  /// @param echoes  one per index; all of their values are set
  void read(std::span<std::int64_t const> indices, std::span<FoundEcho> echoes) const {
    for (std::size_t i = 0; i < indices.size(); ++i) {
      echoes[i].row = ofRows[static_cast<std::size_t>(indices[i])];
    }
    auto const readAll = [&](auto const& columns) {
      for (auto const& one : columns) {
        one.read(indices, echoes);
      }
    };
    readAll(doubles);
    readAll(singles);
    readAll(bytes);
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

/// Enters the uncertainties of those echoes that the three-point fit found.
class ThreePointRows {
 public:
  explicit ThreePointRows(FittedRows const& waveforms) : waveforms(waveforms) {}

  /// @param echoes  all of their waveforms, those of a waveform consecutive
  void enterUncertainties(std::span<FoundEcho> echoes) {
    chosen.clear();
    rows.clear();
    positions.clear();
    sigmas.clear();
    for (FoundEcho& echo : echoes) {
      if (echo.type == threePoint) {
        chosen.push_back(&echo);
        rows.push_back(echo.row);
        positions.push_back(echo.position);
        sigmas.push_back(echo.sigma);
      }
    }
    found.resize(chosen.size());
    forEachRow(rows, [&](std::int64_t row, std::size_t first, std::size_t count) {
      if (std::size_t const later = first + echoesAhead; later < rows.size()) {
        waveforms.prefetch(rows[later], positions[later]);
      }
      FittedRows::Noise const noise(waveforms, row);
      kernel.add(waveforms.waveformOf(row), noise.view(),
                 {std::span(positions).subspan(first, count), std::span(sigmas).subspan(first, count)},
                 std::span(found).subspan(first, count));
    });
    kernel.finish();
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      chosen[i]->sigmaPosition = found[i].position;
      chosen[i]->sigmaHeight = found[i].amplitude;
      chosen[i]->sigmaFwhm = found[i].fwhm;
    }
  }

 private:
  static constexpr std::size_t echoesAhead = 16;  // whose samples are loaded meanwhile
  static constexpr auto threePoint = static_cast<std::uint8_t>(FullWaveform::TYPE::GAUSS_3POINTS);

  FittedRows const& waveforms;
  FullWaveform::ThreePointUncertainty kernel;
  std::vector<FoundEcho*> chosen;
  std::vector<std::int64_t> rows;
  std::vector<double> positions;
  std::vector<double> sigmas;
  std::vector<FullWaveform::EchoUncertainty> found;
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

constexpr std::size_t rowsAtATime = 256;  // whose echoes stay in the cache

/// The columns of a table, made of some shots at a time.
TableColumns columnsOf(ShotTable& table, FoundColumns const& found, FittedRows const* fitted,
                       TableSource const& source) {
  TableColumns columns(table.size());
  std::optional<ThreePointRows> threePoint;
  if (fitted != nullptr) {
    threePoint.emplace(*fitted);
  }
  std::vector<FoundEcho> echoes;
  std::size_t first = 0;
  while (table.takeShots(rowsAtATime)) {
    echoes.resize(table.taken().size());
    found.read(table.taken(), echoes);
    if (threePoint) {
      threePoint->enterUncertainties(echoes);
    }
    for (TableRow const& row : table.rowsOf(echoes)) {
      columns.set(first++, {&source, &row});
    }
  }
  return columns;
}

nb::tuple echoTable(nb::dict const& waveformArrays, nb::dict const& echoColumns, nb::dict const& returnArrays,
                    FittedRows const* fitted, double amplitudeUnit, double rangePerSecond,
                    double positionOffset, bool keepsEmpty) {
  NamedArrays ofWaveforms(waveformArrays);
  NamedArrays ofReturns(returnArrays);
  TableSource const source{waveformsOf(ofWaveforms),
                           nb::len(returnArrays) > 0 ? returnsOf(ofReturns) : DiscreteReturns(),
                           amplitudeUnit, rangePerSecond};
  FoundColumns const found(echoColumns);
  if (fitted != nullptr && fitted->size() != source.waveforms.size()) {
    throw std::invalid_argument("fitted has " + std::to_string(fitted->size()) + " rows; expected " +
                                std::to_string(source.waveforms.size()));
  }
  TableColumns columns;
  std::vector<std::int64_t> echoCounts;
  {
    nb::gil_scoped_release const release;
    checkRows(found.rows(), source.waveforms.size());
    checkRows(source.returns.rows, source.waveforms.size());
    ShotTable table(source.waveforms, source.returns, found.rows(),
                    {positionOffset, deconvolved, keepsEmpty});
    columns = columnsOf(table, found, fitted, source);
    echoCounts = table.echoCounts();
  }
  return nb::make_tuple(numpyColumns(columns), numpyColumn<std::int64_t>(std::move(echoCounts)));
}

}  // namespace

void bindEchoTable(nb::module_& module) {
  module.attr("RESULT_COLUMNS")["echo_table"] = columnTypes(TableColumns());
  module.def("echo_table", &echoTable, nb::arg("waveforms"), nb::arg("echoes"), nb::arg("returns"),
             nb::arg("fitted").none(), nb::arg("amplitude_unit"), nb::arg("range_per_second"),
             nb::arg("position_offset"), nb::arg("keep_empty"),
             "Columns of the table of a block, and the number of echoes of each waveform. The arguments are "
             "arrays by name; `returns` is empty if echoes are not compared with discrete returns, `fitted` "
             "None if the uncertainties of three-point echoes are not computed. Echoes of a waveform are "
             "consecutive.");
}
