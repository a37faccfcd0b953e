#include "ResultColumns.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

template <class... Columns>
void resizeAll(std::size_t rows, Columns&... columns) {
  (columns.resize(rows), ...);
}

}  // namespace

ResultColumns::ResultColumns(FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& trace)
    : amplitudeCounts(trace.amplitudesInCounts),
      mergedIntoOtherChannel(trace.mergedIntoOtherChannel),
      tooLongToDeconvolve(trace.tooLongToDeconvolve),
      statistics(trace.statistics) {
  resizeWaveforms(trace.rowStates.size());
  resizeAll(trace.amplitudesInCounts.size(), peakWaveform, peakRow, amplitude, idx, time, quality, type,
            width, classification, reflectance);
  for (auto const& [key, shot] : shots) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      appendWave(*shot.waves[i], shot.rows[i]);
    }
  }
  resizeWaveforms(waveformCount);
  rowState.resize(trace.rowStates.size());
  std::transform(trace.rowStates.begin(), trace.rowStates.end(), rowState.begin(),
                 [](FullWaveform::RowState state) { return static_cast<std::uint8_t>(state); });
}

void ResultColumns::resizeWaveforms(std::size_t count) {
  resizeAll(count, row, isLowPower, shotTime, sblTime, damping, idxOfMaxAmplitude, maxAmplitude, binShift,
            length, noise, maxAmplitudeDB, timeOfMaxAmplitude, online, globalStart, globalEnd, lengthCropped,
            afterPulseFrom, afterPulseTo, segmentCount, peakCount);
}

void ResultColumns::appendWave(Wave const& wave, std::uint32_t blockRow) {
  std::size_t const w = waveformCount++;
  auto const waveform = static_cast<std::int64_t>(w);
  row[w] = blockRow;
  isLowPower[w] = wave.isLowPower ? 1 : 0;
  shotTime[w] = wave.shotTime;
  sblTime[w] = wave.sblTime;
  damping[w] = wave.damping;
  idxOfMaxAmplitude[w] = wave.idxOfMaxAmplitude;
  maxAmplitude[w] = wave.maxAmplitude;
  binShift[w] = wave.binShift;
  length[w] = wave.length;
  noise[w] = wave.noise;
  maxAmplitudeDB[w] = wave.maxAmplitudeDB;
  timeOfMaxAmplitude[w] = wave.timeOfMaxAmplitude;
  online[w] = wave.online ? 1 : 0;
  globalStart[w] = wave.globalStart;
  globalEnd[w] = wave.globalEnd;
  lengthCropped[w] = wave.lengthCropped;
  segmentCount[w] = static_cast<std::int64_t>(wave.startEnd.size());
  peakCount[w] = static_cast<std::int64_t>(wave.peaks.size());
  appendSegments(wave, waveform);
  for (FullWaveform::Peak const& peak : wave.peaks) {
    appendPeak(peak, waveform, blockRow);
  }
}

void ResultColumns::appendSegments(Wave const& wave, std::int64_t waveform) {
  constexpr double none = std::numeric_limits<double>::quiet_NaN();
  afterPulseFrom[static_cast<std::size_t>(waveform)] =
      wave.afterPulse.empty() ? none : wave.afterPulse.front().first;
  afterPulseTo[static_cast<std::size_t>(waveform)] =
      wave.afterPulse.empty() ? none : wave.afterPulse.front().second;
  for (auto const& [start, end] : wave.startEnd) {
    segmentWaveform.push_back(waveform);
    segmentStart.push_back(start);
    segmentEnd.push_back(end);
  }
}

void ResultColumns::appendPeak(FullWaveform::Peak const& peak, std::int64_t waveform,
                               std::uint32_t blockRow) {
  std::size_t const p = echoCount++;
  peakWaveform[p] = waveform;
  peakRow[p] = blockRow;
  amplitude[p] = peak.amplitude;
  idx[p] = peak.idx;
  time[p] = peak.time;
  quality[p] = static_cast<std::uint8_t>(peak.quality);
  type[p] = static_cast<std::uint8_t>(peak.type);
  width[p] = peak.std;
  classification[p] = peak.classification;
  reflectance[p] = peak.reflectance;
}
