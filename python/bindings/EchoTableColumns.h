#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <tuple>

#include <native/echotable/TableRows.h>
#include <native/echotable/Units.h>

#include "ColumnTable.h"

/// The columns of tables of echoes: a column is one line here; Python declares its unit and meaning.
namespace EchoTable {

/// What the rows of a table have in common.
struct TableSource {
  Waveforms waveforms;
  DiscreteReturns returns;
  double amplitudeUnit;   ///< of the scanner, per count; NaN if unknown
  double rangePerSecond;  ///< m of range per s of two-way travel time
};

/// Source of the columns of a row.
struct TableRecord {
  TableSource const* source;
  TableRow const* at;

  [[nodiscard]] FoundEcho const& echo() const { return *at->echo; }

  /// A value of the waveform.
  template <class Value>
  [[nodiscard]] Value ofWaveform(std::span<Value const> Waveforms::* column) const {
    return (source->waveforms.*column)[static_cast<std::size_t>(at->row)];
  }

  /// A value of the discrete return of the echo, 0 without one.
  [[nodiscard]] std::uint8_t ofReturn(std::span<std::uint8_t const> DiscreteReturns::* column) const {
    return at->returnIndex < 0 ? std::uint8_t{0}
                               : (source->returns.*column)[static_cast<std::size_t>(at->returnIndex)];
  }

  [[nodiscard]] double intervalNs() const {
    return ofWaveform(&Waveforms::samplingIntervals) * nanosecondsPerSecond;
  }

  /// NaN without an amplitude unit, and where the amplitude is not above 0.
  [[nodiscard]] double decibels() const {
    double const counts = echo().height;
    return counts > 0.0 ? 20.0 * std::log10(counts * source->amplitudeUnit) : unknown;
  }

  [[nodiscard]] double sigmaPositionNs() const { return echo().sigmaPosition * intervalNs(); }
};

/// A column in single precision.
template <class Getter>
constexpr auto single(char const* name, Getter get) {
  return ResultColumn{name, [get](TableRecord const& r) { return static_cast<float>(get(r)); }};
}

inline constexpr auto tableColumns = std::tuple{
    ResultColumn{"row", [](TableRecord const& r) { return r.at->row; }},
    ResultColumn{"return_index", [](TableRecord const& r) { return r.at->returnIndex; }},
    ResultColumn{"x", [](TableRecord const& r) { return r.at->place[0]; }},
    ResultColumn{"y", [](TableRecord const& r) { return r.at->place[1]; }},
    ResultColumn{"z", [](TableRecord const& r) { return r.at->place[2]; }},
    ResultColumn{"gps_time", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::gpsTimes); }},
    ResultColumn{"echo_number", [](TableRecord const& r) { return r.at->number; }},
    ResultColumn{"echo_count", [](TableRecord const& r) { return r.at->count; }},
    single("amplitude", [](TableRecord const& r) { return r.echo().height; }),
    single("amplitude_db", [](TableRecord const& r) { return r.decibels(); }),
    ResultColumn{"amplitude_library_db", [](TableRecord const& r) { return r.echo().libraryDecibels; }},
    ResultColumn{"sigma_ns", [](TableRecord const& r) { return r.echo().sigma * r.intervalNs(); }},
    ResultColumn{"fwhm_ns",
                 [](TableRecord const& r) { return fwhmPerSigma * r.echo().sigma * r.intervalNs(); }},
    ResultColumn{"sigma_samples", [](TableRecord const& r) { return r.echo().sigma; }},
    ResultColumn{"position", [](TableRecord const& r) { return r.echo().position; }},
    ResultColumn{"position_library", [](TableRecord const& r) { return r.echo().libraryPosition; }},
    single("sigma_position_ns", [](TableRecord const& r) { return r.sigmaPositionNs(); }),
    single("sigma_amplitude", [](TableRecord const& r) { return r.echo().sigmaHeight; }),
    single("sigma_width_ns", [](TableRecord const& r) { return r.echo().sigmaFwhm * r.intervalNs(); }),
    single("sigma_range",
           [](TableRecord const& r) {
             return r.sigmaPositionNs() * (r.source->rangePerSecond / nanosecondsPerSecond);
           }),
    single("significance", [](TableRecord const& r) { return r.echo().significance; }),
    ResultColumn{"fit_flags", [](TableRecord const& r) { return r.echo().fitFlags; }},
    single("reduced_chi_square", [](TableRecord const& r) { return r.echo().reducedChiSquare; }),
    ResultColumn{"echo_type", [](TableRecord const& r) { return r.echo().type; }},
    ResultColumn{"quality", [](TableRecord const& r) { return r.echo().quality; }},
    ResultColumn{"reflectance", [](TableRecord const& r) { return r.echo().reflectance; }},
    ResultColumn{"time", [](TableRecord const& r) { return r.echo().time; }},
    ResultColumn{"waveform_number", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::numbers); }},
    ResultColumn{"channel_flag", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::channelFlags); }},
    ResultColumn{"descriptor", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::descriptors); }},
    ResultColumn{"classification",
                 [](TableRecord const& r) { return r.ofReturn(&DiscreteReturns::classifications); }},
    ResultColumn{"original_return_number",
                 [](TableRecord const& r) { return r.ofReturn(&DiscreteReturns::returnNumbers); }},
    ResultColumn{"scan_angle", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::scanAngles); }},
    ResultColumn{"scan_direction_flag",
                 [](TableRecord const& r) { return r.ofWaveform(&Waveforms::scanDirectionFlags); }},
    ResultColumn{"edge_of_flight_line",
                 [](TableRecord const& r) { return r.ofWaveform(&Waveforms::edgesOfFlightLine); }},
    ResultColumn{"user_data", [](TableRecord const& r) { return r.ofWaveform(&Waveforms::userData); }},
    ResultColumn{"point_source_id",
                 [](TableRecord const& r) { return r.ofWaveform(&Waveforms::pointSourceIds); }},
};

using TableColumns = ColumnTable<TableRecord, tableColumns>;

}  // namespace EchoTable
