#include <fullwaveform/driver/ShotRules.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include <fullwaveform/driver/ChannelMerge.h>
#include <fullwaveform/driver/ShotGroups.h>
#include <fullwaveform/model/AfterPulse.h>
#include <fullwaveform/model/Segmentation.h>

namespace FullWaveform {
namespace {

/// The echoes of one waveform, consecutive in their arrays.
struct EchoRange {
  std::size_t row;
  std::size_t first;
  std::size_t end;
};

std::vector<EchoRange> rangesOf(std::span<std::int64_t const> rows) {
  std::vector<EchoRange> ranges;
  for (std::size_t first = 0, end = 0; first < rows.size(); first = end) {
    while (end < rows.size() && rows[end] == rows[first]) {
      ++end;
    }
    ranges.push_back({static_cast<std::size_t>(rows[first]), first, end});
  }
  return ranges;
}

void markAfterPulses(std::span<unsigned short const> samples, ScannerDevice const& scanner,
                     std::span<double const> positions, std::span<EchoState> states) {
  // No sample is above this level, so that no segments are listed.
  Segmentation const found = segmentSignal(samples, std::numeric_limits<unsigned short>::max());
  if (!hasVisibleAfterPulse(found.max)) {
    return;
  }
  AfterPulseWindow const window =
      afterPulseWindow(found.idxOfMax, scanner.afterpulse_offset, scanner.afterpulse_width);
  for (std::size_t i = 0; i < positions.size(); ++i) {
    if (isInWindow(positions[i], window)) {
      states[i] = EchoState::AfterPulse;
    }
  }
}

/// Merges the channels of one shot.
class ShotMerge {
 public:
  ShotMerge(FoundEchoes const& found, double samplingInterval, WorkMeter& work)
      : found(found), samplingInterval(samplingInterval), work(&work) {}

  void apply(std::span<EchoRange const> waveforms, std::span<unsigned char const> channelFlags,
             EchoRules& rules) {
    shot.clear();
    taken.clear();
    for (EchoRange const& waveform : waveforms) {
      shot.startWaveform(channelFlags[waveform.row] == 0);
      for (std::size_t i = waveform.first; i < waveform.end; ++i) {
        if (rules.states[i] == EchoState::Kept) {
          shot.add(rules.times[i], static_cast<float>(found.amplitudes[i]));
          taken.push_back(i);
        }
      }
    }
    shot.merge(samplingInterval, *work);
    for (std::size_t i = 0; i < taken.size(); ++i) {
      if (shot.isRemoved(i)) {
        rules.states[taken[i]] = EchoState::InOtherChannel;
      }
    }
  }

 private:
  FoundEchoes found;
  double samplingInterval;
  WorkMeter* work;
  ShotEchoes shot;
  std::vector<std::size_t> taken;  ///< index of each echo of the shot
};

}  // namespace

double timeOfPosition(double position, double sblTime, ScannerDevice const& scanner) {
  return position * scanner.sampling_time + (sblTime - scanner.t_ref);
}

BlockReport reportOfRows(SampleRows const& samples, std::span<double const> shotTimes) {
  BlockReport report;
  report.statistics.numberOfWaves = static_cast<std::int64_t>(shotTimes.size());
  report.rowStates.assign(shotTimes.size(), RowState::InvalidRow);
  ShotMap shots;
  for (std::size_t row = 0; row < shotTimes.size(); ++row) {
    if (samples[row].empty() || std::isnan(shotTimes[row])) {
      continue;
    }
    report.statistics.countSegments(0);
    bool const isNew = enterSignature(shotAt(shotTimes[row], shots), samples[row]);
    report.rowStates[row] = isNew ? RowState::Kept : RowState::Duplicate;
    report.statistics.duplicates += isNew ? 0U : 1U;
  }
  return report;
}

EchoRules applyEchoRules(SampleRows const& samples, std::span<double const> shotTimes,
                         std::span<double const> sblTimes, std::span<unsigned char const> channelFlags,
                         FoundEchoes const& echoes, ScannerDevice const& scanner, WorkMeter& work) {
  EchoRules rules{std::vector<double>(echoes.rows.size()),
                  std::vector<EchoState>(echoes.rows.size(), EchoState::Kept)};
  std::map<double, std::vector<EchoRange>> shots;
  for (EchoRange const& waveform : rangesOf(echoes.rows)) {
    for (std::size_t i = waveform.first; i < waveform.end; ++i) {
      rules.times[i] = timeOfPosition(echoes.positions[i], sblTimes[waveform.row], scanner);
    }
    std::size_t const count = waveform.end - waveform.first;
    markAfterPulses(samples[waveform.row], scanner, echoes.positions.subspan(waveform.first, count),
                    std::span(rules.states).subspan(waveform.first, count));
    shots[shotTimes[waveform.row]].push_back(waveform);
  }
  ShotMerge merge(echoes, scanner.sampling_time, work);
  for (auto const& [time, waveforms] : shots) {
    merge.apply(waveforms, channelFlags, rules);
  }
  return rules;
}

}  // namespace FullWaveform
