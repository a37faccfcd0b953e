#include "ResultColumns.h"

#include <algorithm>

namespace Results {

std::vector<std::uint8_t> rowStatesOf(FullWaveform::BlockReport const& report) {
  std::vector<std::uint8_t> states(report.rowStates.size());
  std::transform(report.rowStates.begin(), report.rowStates.end(), states.begin(),
                 [](FullWaveform::RowState state) { return static_cast<std::uint8_t>(state); });
  return states;
}

ResultColumns::ResultColumns(std::size_t rows) {
  waveforms.reserve(rows);
  segments.reserve(rows);
  echoes.reserve(rows);
}

void ResultColumns::append(FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& report) {
  std::size_t waveform = waveformCount;
  for (auto const& [shotTime, shot] : shots) {
    waveformCount += shot.waves.size();
  }
  waveforms.resize(waveformCount);
  std::size_t echo = echoCount;
  echoCount = report.amplitudesInCounts.size();
  echoes.resize(echoCount);
  for (auto const& [shotTime, shot] : shots) {
    for (std::size_t i = 0; i < shot.waves.size(); ++i) {
      FullWaveform::WavePoints<unsigned short> const& wave = *shot.waves[i];
      WaveformRecord const record{&wave, static_cast<std::int64_t>(waveform), shot.rows[i]};
      waveforms.set(waveform, record);
      for (auto const& [start, end] : wave.startEnd) {
        segments.append({record.waveform, start, end});
      }
      for (FullWaveform::Peak const& peak : wave.peaks) {
        echoes.set(echo, {record, &peak, report.amplitudesInCounts[echo]});
        ++echo;
      }
      ++waveform;
    }
  }
}

void ResultColumns::finish(FullWaveform::BlockReport const& report) {
  rowStates = rowStatesOf(report);
  mergedIntoOtherChannel = report.mergedIntoOtherChannel;
  tooLongToDeconvolve = report.tooLongToDeconvolve;
  tooComplex = report.tooComplex;
  statistics = report.statistics;
}

}  // namespace Results
