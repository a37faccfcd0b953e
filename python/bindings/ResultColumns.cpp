#include "ResultColumns.h"

#include <algorithm>

namespace Results {
namespace {

using FullWaveform::RowState;

std::size_t waveformsInMap(std::vector<RowState> const& states) {
  return static_cast<std::size_t>(std::count_if(states.begin(), states.end(), [](RowState state) {
    return state == RowState::Kept || state == RowState::TooLongToDeconvolve ||
           state == RowState::MergedIntoOtherChannel || state == RowState::TooComplex;
  }));
}

}  // namespace

std::vector<std::uint8_t> rowStatesOf(FullWaveform::BlockReport const& report) {
  std::vector<std::uint8_t> states(report.rowStates.size());
  std::transform(report.rowStates.begin(), report.rowStates.end(), states.begin(),
                 [](RowState state) { return static_cast<std::uint8_t>(state); });
  return states;
}

ResultColumns::ResultColumns(FullWaveform::ShotMap const& shots, FullWaveform::BlockReport const& report)
    : waveforms(waveformsInMap(report.rowStates)),
      echoes(report.amplitudesInCounts.size()),
      rowStates(rowStatesOf(report)),
      mergedIntoOtherChannel(report.mergedIntoOtherChannel),
      tooLongToDeconvolve(report.tooLongToDeconvolve),
      tooComplex(report.tooComplex),
      statistics(report.statistics) {
  std::size_t waveform = 0;
  std::size_t echo = 0;
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

}  // namespace Results
