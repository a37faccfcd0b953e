#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/driver/ShotMap.h>
#include <fullwaveform/model/Peak.h>
#include <fullwaveform/model/WavePoints.h>

#include "ColumnTable.h"

/// The columns of every result. A new column is one line in one of the lists below; the NumPy columns and
/// their types in Python follow from it.
namespace Results {

/// Source of the columns of a waveform.
struct WaveformRecord {
  FullWaveform::WavePoints<unsigned short> const* wave;
  std::int64_t waveform;  ///< row in the table of waveforms
  std::int64_t row;       ///< row in the block of samples
};

/// Source of the columns of a segment above the threshold.
struct SegmentRecord {
  std::int64_t waveform;  ///< row in the table of waveforms
  std::uint32_t start;
  std::uint32_t end;
};

/// Source of the columns of an echo.
struct EchoRecord {
  WaveformRecord of;
  FullWaveform::Peak const* peak;
  float amplitudeCounts;  ///< amplitude before the conversion to decibels
};

using AfterPulseWindow = std::pair<double, double>;

/// A bound of the after-pulse window, in samples; NaN without a window.
inline double afterPulse(WaveformRecord const& r, double AfterPulseWindow::* bound) {
  auto const& windows = r.wave->afterPulse;
  return windows.empty() ? std::numeric_limits<double>::quiet_NaN() : windows.front().*bound;
}

inline constexpr auto waveformColumns = std::tuple{
    ResultColumn{"row", [](WaveformRecord const& r) { return r.row; }},
    ResultColumn{"isLowPower", [](WaveformRecord const& r) { return r.wave->isLowPower; }},
    ResultColumn{"shotTime", [](WaveformRecord const& r) { return r.wave->shotTime; }},
    ResultColumn{"sblTime", [](WaveformRecord const& r) { return r.wave->sblTime; }},
    ResultColumn{"damping", [](WaveformRecord const& r) { return r.wave->damping; }},
    ResultColumn{"idxOfMaxAmplitude", [](WaveformRecord const& r) { return r.wave->idxOfMaxAmplitude; }},
    ResultColumn{"maxAmplitude", [](WaveformRecord const& r) { return r.wave->maxAmplitude; }},
    ResultColumn{"binShift", [](WaveformRecord const& r) { return r.wave->binShift; }},
    ResultColumn{"length", [](WaveformRecord const& r) { return r.wave->length; }},
    ResultColumn{"noise", [](WaveformRecord const& r) { return r.wave->noise; }},
    ResultColumn{"maxAmplitudeDB", [](WaveformRecord const& r) { return r.wave->maxAmplitudeDB; }},
    ResultColumn{"timeOfMaxAmplitude", [](WaveformRecord const& r) { return r.wave->timeOfMaxAmplitude; }},
    ResultColumn{"online", [](WaveformRecord const& r) { return r.wave->online; }},
    ResultColumn{"globalStart", [](WaveformRecord const& r) { return r.wave->globalStart; }},
    ResultColumn{"globalEnd", [](WaveformRecord const& r) { return r.wave->globalEnd; }},
    ResultColumn{"lengthCropped", [](WaveformRecord const& r) { return r.wave->lengthCropped; }},
    ResultColumn{"afterPulseFrom",
                 [](WaveformRecord const& r) { return afterPulse(r, &AfterPulseWindow::first); }},
    ResultColumn{"afterPulseTo",
                 [](WaveformRecord const& r) { return afterPulse(r, &AfterPulseWindow::second); }},
    ResultColumn{"segmentCount",
                 [](WaveformRecord const& r) { return static_cast<std::int64_t>(r.wave->startEnd.size()); }},
    ResultColumn{"peakCount",
                 [](WaveformRecord const& r) { return static_cast<std::int64_t>(r.wave->peaks.size()); }},
};

inline constexpr auto segmentColumns = std::tuple{
    ResultColumn{"waveform", [](SegmentRecord const& r) { return r.waveform; }},
    ResultColumn{"start", [](SegmentRecord const& r) { return r.start; }},
    ResultColumn{"end", [](SegmentRecord const& r) { return r.end; }},
};

// Echo columns that on-board echoes have as well.
inline constexpr ResultColumn amplitude{"amplitude", [](EchoRecord const& r) { return r.peak->amplitude; }};
inline constexpr ResultColumn time{"time", [](EchoRecord const& r) { return r.peak->time; }};
inline constexpr ResultColumn type{
    "type", [](EchoRecord const& r) { return static_cast<std::uint8_t>(r.peak->type); }};
inline constexpr ResultColumn reflectance{"reflectance",
                                          [](EchoRecord const& r) { return r.peak->reflectance; }};

inline constexpr auto echoColumns = std::tuple{
    ResultColumn{"waveform", [](EchoRecord const& r) { return r.of.waveform; }},
    ResultColumn{"row", [](EchoRecord const& r) { return r.of.row; }},
    amplitude,
    ResultColumn{"amplitudeCounts", [](EchoRecord const& r) { return r.amplitudeCounts; }},
    ResultColumn{"idx", [](EchoRecord const& r) { return r.peak->idx; }},
    time,
    ResultColumn{"quality", [](EchoRecord const& r) { return static_cast<std::uint8_t>(r.peak->quality); }},
    type,
    ResultColumn{"std", [](EchoRecord const& r) { return r.peak->std; }},
    ResultColumn{"classification", [](EchoRecord const& r) { return r.peak->classification; }},
    reflectance,
};

inline constexpr auto onBoardColumns = std::tuple{
    ResultColumn{"shotTime", [](EchoRecord const& r) { return r.of.wave->shotTime; }},
    ResultColumn{"isLowPower", [](EchoRecord const& r) { return r.of.wave->isLowPower; }},
    amplitude,
    time,
    type,
    reflectance,
};

using WaveformTable = ColumnTable<WaveformRecord, waveformColumns>;
using SegmentTable = ColumnTable<SegmentRecord, segmentColumns>;
using EchoTable = ColumnTable<EchoRecord, echoColumns>;
using OnBoardTable = ColumnTable<EchoRecord, onBoardColumns>;

/// One `RowState` per row of the block.
std::vector<std::uint8_t> rowStatesOf(FullWaveform::BlockReport const& report);

/// The shots of a block as columns: shots ascending, waveforms in order of arrival, echoes in list order.
struct ResultColumns {
  ResultColumns() = default;
  /// @param rows  of the block
  explicit ResultColumns(std::size_t rows);

  /// Appends the shots of a part of the block, which are later than those before.
  void append(FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& report);
  /// Takes states and counts of the whole block.
  void finish(FullWaveform::BlockReport const& report);

  WaveformTable waveforms;
  SegmentTable segments;
  EchoTable echoes;
  std::vector<std::uint8_t> rowStates;
  std::uint32_t mergedIntoOtherChannel = 0;
  std::uint32_t tooLongToDeconvolve = 0;
  std::uint32_t tooComplex = 0;
  FullWaveform::RunStatistics statistics;

 private:
  std::size_t waveformCount = 0;
  std::size_t echoCount = 0;
};

}  // namespace Results
