#include "ResultColumns.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

template <class... Columns>
void reserve(std::size_t rows, Columns&... columns) {
  (columns.reserve(rows), ...);
}

}  // namespace

ResultColumns::ResultColumns(FullWaveform::ShotMap const& shots, FullWaveform::BlockTrace const& trace)
    : amplitudeCounts(trace.amplitudesInCounts),
      mergedAway(trace.mergedAway),
      withoutPlane(trace.withoutPlane),
      statistics(trace.statistics) {
  reserve(trace.rowStates.size(), row, isLowPower, shotTime, sblTime, damping, idxOfMaxAmplitude,
          maxAmplitude, binShift, length, noise, maxAmplitudeDB, timeOfMaxAmplitude, online, globalStart,
          globalEnd, lengthCropped, afterPulseFrom, afterPulseTo, segmentCount, peakCount, segmentWaveform,
          segmentStart, segmentEnd);
  reserve(trace.amplitudesInCounts.size(), peakWaveform, peakRow, amplitude, idx, time, quality, type, width,
          classification, reflectance);
  for (auto const& [key, shot] : shots) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      appendWave(*shot.waves[i], shot.rows[i]);
    }
  }
  rowState.resize(trace.rowStates.size());
  std::transform(trace.rowStates.begin(), trace.rowStates.end(), rowState.begin(),
                 [](FullWaveform::RowState state) { return static_cast<std::uint8_t>(state); });
}

void ResultColumns::appendWave(Wave const& wave, std::uint32_t blockRow) {
  auto const waveform = static_cast<std::int64_t>(row.size());
  row.push_back(blockRow);
  isLowPower.push_back(wave.isLowPower ? 1 : 0);
  shotTime.push_back(wave.shotTime);
  sblTime.push_back(wave.sblTime);
  damping.push_back(wave.damping);
  idxOfMaxAmplitude.push_back(wave.idxOfMaxAmplitude);
  maxAmplitude.push_back(wave.maxAmplitude);
  binShift.push_back(wave.binShift);
  length.push_back(wave.length);
  noise.push_back(wave.noise);
  maxAmplitudeDB.push_back(wave.maxAmplitudeDB);
  timeOfMaxAmplitude.push_back(wave.timeOfMaxAmplitude);
  online.push_back(wave.online ? 1 : 0);
  globalStart.push_back(wave.globalStart);
  globalEnd.push_back(wave.globalEnd);
  lengthCropped.push_back(wave.lengthCropped);
  segmentCount.push_back(static_cast<std::int64_t>(wave.startEnd.size()));
  peakCount.push_back(static_cast<std::int64_t>(wave.peaks.size()));
  appendSegments(wave, waveform);
  for (FullWaveform::Peak const& peak : wave.peaks) {
    appendPeak(peak, waveform, blockRow);
  }
}

void ResultColumns::appendSegments(Wave const& wave, std::int64_t waveform) {
  constexpr double none = std::numeric_limits<double>::quiet_NaN();
  afterPulseFrom.push_back(wave.afterPulse.empty() ? none : wave.afterPulse.front().first);
  afterPulseTo.push_back(wave.afterPulse.empty() ? none : wave.afterPulse.front().second);
  for (auto const& [start, end] : wave.startEnd) {
    segmentWaveform.push_back(waveform);
    segmentStart.push_back(start);
    segmentEnd.push_back(end);
  }
}

void ResultColumns::appendPeak(FullWaveform::Peak const& peak, std::int64_t waveform,
                               std::uint32_t blockRow) {
  peakWaveform.push_back(waveform);
  peakRow.push_back(blockRow);
  amplitude.push_back(peak.amplitude);
  idx.push_back(peak.idx);
  time.push_back(peak.time);
  quality.push_back(static_cast<std::uint8_t>(peak.quality));
  type.push_back(static_cast<std::uint8_t>(peak.type));
  width.push_back(peak.std);
  classification.push_back(peak.classification);
  reflectance.push_back(peak.reflectance);
}
