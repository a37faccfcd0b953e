#include <fullwaveform/driver/PeakDetectionFamily.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <utility>
#include <vector>

#include <fullwaveform/driver/BlockMismatch.h>
#include <fullwaveform/driver/BlockParts.h>
#include <fullwaveform/driver/ChannelMerge.h>
#include <fullwaveform/driver/Decibel.h>
#include <fullwaveform/driver/ShotGroups.h>
#include <fullwaveform/driver/ShotRules.h>
#include <fullwaveform/host/SpeakPtr.h>
#include <fullwaveform/model/MarkBadPeaks.h>
#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

using ChannelFlags = Kestra::MultiArray<1, unsigned char>;

/// The hybrid decomposes waveforms whose largest sample exceeds this limit in counts, for every scanner.
constexpr unsigned short strongSignal = 1800;

// Work of the steps that are linear in their input, operations.
constexpr std::uint64_t workPerWaveform = 2000;
constexpr std::uint64_t workPerSample = 20;

template <class T>
T const* samplesOf(Kestra::MemArray<2, T> const& waveforms, std::size_t row) {
  if (waveforms.hasAccessor()) {
    return waveforms.rowAccessor()(row);
  }
  T const* const storage = waveforms.storage();
  return storage == nullptr ? nullptr : storage + row * waveforms.columns();
}

template <class T>
void keepGoodPeaks(WavePoints<T>& wave) {
  markBadPeaks(wave.peaks, static_cast<int>(wave.globalStart), static_cast<int>(wave.globalEnd), wave.noise);
  wave.peaks.remove_if([](Peak const& peak) { return peak.quality != GOOD; });
  wave.sort_idx();
}

/// Deletes the NaN echoes of a waveform whose `isNaN` is true; returns that value.
template <class T>
bool deleteNaNPeaks(WavePoints<T>& wave, std::uint32_t row) {
  if (!wave.isNaN()) {
    return false;
  }
  logMessage("Warning, delete NAN-points for wave " + std::to_string(row));
  wave.peaks.remove_if([](Peak const& peak) {
    return std::isnan(peak.idx) || std::isnan(peak.time) || std::isnan(peak.amplitude);
  });
  return true;
}

}  // namespace

/// The arguments of `apply`.
template <class T>
struct PeakDetectionFamily<T>::Rows {
  Waveforms const& waveforms;
  Kestra::MultiArray<1, unsigned short> const& counts;
  Kestra::MultiArray<1, double> const& shotTimes;
  Kestra::MultiArray<1, double> const& sblTimes;
  ChannelFlags const& channelFlags;
  std::span<int const> noises;

  [[nodiscard]] std::size_t size() const { return waveforms ? waveforms->rows() : 0; }
  [[nodiscard]] std::size_t rowLength() const { return waveforms ? waveforms->columns() : 0; }
  [[nodiscard]] auto valueCounts() const {
    return std::minmax(
        {counts.size(), shotTimes.size(), sblTimes.size(), channelFlags.size(), noises.size()});
  }
  /// Rows with a value in every array.
  [[nodiscard]] std::size_t completeRows() const { return std::min(size(), valueCounts().first); }
};

template <class T>
struct PeakDetectionFamily<T>::Row {
  std::uint32_t number;
  T const* samples;
  int count;
  double shotTime;
  double sblTime;
  unsigned char channelFlag;

  /// A row without samples is a valid waveform of length 0.
  [[nodiscard]] bool isValid() const { return !std::isnan(shotTime) && (samples != nullptr || count == 0); }
};

template <class T>
PeakDetectionFamily<T>::PeakDetectionFamily(FWFModus const& modus, ScannerDevice const& scanner,
                                            std::filesystem::path const& outputDirectory,
                                            std::filesystem::path const& inputFile,
                                            unsigned int const& rlParameter)
    : modus(modus),
      onlineEvaluation(scanner),
      outputDirectory(outputDirectory),
      inputFile(inputFile),
      rlPlanes(scanner, rlParameter) {
  if (modus == FWFModus::Deconvolution || modus == FWFModus::Hybrid) {
    message = rlPlanes.error;
  }
}

template <class T>
ShotMap PeakDetectionFamily<T>::apply(Waveforms const& waveforms,
                                      Kestra::MultiArray<1, unsigned short> const& counts,
                                      Kestra::MultiArray<1, double> const& shotTimes,
                                      Kestra::MultiArray<1, double> const& sblTimes,
                                      ChannelFlags const& channelFlags, int const& noise,
                                      std::string const& hostText) {
  std::vector<int> const noises(waveforms ? waveforms->rows() : 0, noise);
  return apply(waveforms, counts, shotTimes, sblTimes, channelFlags, std::span(noises), hostText);
}

template <class T>
ShotMap PeakDetectionFamily<T>::apply(Waveforms const& waveforms,
                                      Kestra::MultiArray<1, unsigned short> const& counts,
                                      Kestra::MultiArray<1, double> const& shotTimes,
                                      Kestra::MultiArray<1, double> const& sblTimes,
                                      ChannelFlags const& channelFlags, std::span<int const> noises,
                                      std::string const& /*hostText*/) {
  ShotMap all;
  Rows const block{waveforms, counts, shotTimes, sblTimes, channelFlags, noises};
  extractParts(
      block, [&](std::size_t /*first*/) { return block.completeRows(); },
      [&](ShotMap& shots) { all.swap(shots); });
  return all;
}

template <class T>
void PeakDetectionFamily<T>::applyInParts(Waveforms const& waveforms,
                                          Kestra::MultiArray<1, unsigned short> const& counts,
                                          Kestra::MultiArray<1, double> const& shotTimes,
                                          Kestra::MultiArray<1, double> const& sblTimes,
                                          ChannelFlags const& channelFlags, std::span<int const> noises,
                                          PartReceiver const& receive) {
  Rows const block{waveforms, counts, shotTimes, sblTimes, channelFlags, noises};
  BlockParts const parts(shotTimes, block.completeRows());
  extractParts(
      block, [&](std::size_t first) { return parts.endOfPart(first); },
      [&](ShotMap& shots) { receive(shots, report); });
}

/// @param endOfPart  given a row, the end of the part that starts there
template <class T>
template <class EndOfPart, class Receive>
void PeakDetectionFamily<T>::extractParts(Rows const& block, EndOfPart const& endOfPart,
                                          Receive const& receive) {
  if (!block.waveforms) {
    Holdex::SpeakPtr::report("PeakDetectionFamily::apply: empty pointer to the waveforms");
  }
  startReport(block.size());
  gaussDecomposition.meter = &work;
  rlPlanes.meter = &work;

  std::size_t const rows = block.completeRows();
  for (std::size_t first = 0; first < rows;) {
    std::size_t const end = endOfPart(first);
    ShotMap shots = extractPart(block, first, end);
    receive(shots);
    first = end;
  }
  work.attend();
  reportMismatches(mismatchOf(block), block.rowLength());
  reportSkipped(report.tooLongToDeconvolve, report.tooComplex);
  report.statistics.writeIfSuspicious();
}

template <class T>
BlockMismatch PeakDetectionFamily<T>::mismatchOf(Rows const& block) const {
  BlockMismatch mismatch;
  for (std::size_t i = 0; i < report.rowStates.size(); ++i) {
    if (report.rowStates[i] == RowState::InvalidRow) {
      ++mismatch.invalidRows;
    } else if (block.counts[i] > block.rowLength()) {
      ++mismatch.clippedCounts;
    }
  }
  std::size_t const longest = block.valueCounts().second;
  mismatch.surplusValues = longest > block.size() ? longest - block.size() : 0;
  return mismatch;
}

template <class T>
ShotMap PeakDetectionFamily<T>::extractPart(Rows const& block, std::size_t first, std::size_t end) {
  ShotMap shots;
  for (std::size_t i = first; i < end; ++i) {
    int const count = static_cast<int>(std::min<std::size_t>(block.counts[i], block.rowLength()));
    Row const row{static_cast<std::uint32_t>(i),
                  samplesOf(*block.waveforms, i),
                  count,
                  block.shotTimes[i],
                  block.sblTimes[i],
                  block.channelFlags[i]};
    if (row.isValid()) {
      report.rowStates[i] = processRow(row, block.noises[i], shots);
    }
    work.finishWaveform();
  }
  ShotEchoes echoes;
  for (auto& [shotTime, shot] : shots) {
    mergeChannelsOf(shot, block.channelFlags, echoes);
    convertToDecibels(shot);
  }
  return shots;
}

template <class T>
void PeakDetectionFamily<T>::startReport(std::size_t rows) {
  report = {};
  report.statistics.outputDirectory = outputDirectory;
  report.statistics.inputFile = inputFile;
  report.statistics.numberOfWaves = static_cast<std::int64_t>(rows);
  report.rowStates.assign(rows, RowState::InvalidRow);
}

template <class T>
RowState PeakDetectionFamily<T>::processRow(Row const& row, int noise, ShotMap& shots) {
  work.startWaveform();
  work.pass(workPerWaveform + workPerSample * static_cast<std::uint64_t>(row.count));
  WavePtr wave(new WavePoints<T>(row.samples, row.channelFlag, row.shotTime, row.sblTime, row.count, noise,
                                 onlineEvaluation.scanner));
  report.statistics.countSegments(wave->startEnd.size());
  if (!wave->signalIsAboveNoise()) {
    ++report.statistics.signalTooLow;
    return RowState::SignalTooLow;
  }
  Shot& shot = shotAt(row.shotTime, shots);
  std::span<T const> const samples(row.samples, static_cast<std::size_t>(row.count));
  if (!enterSignature(shot, samples)) {
    ++report.statistics.duplicates;
    return RowState::Duplicate;
  }
  RowState const state = extract(row, wave);
  keepGoodPeaks(*wave);
  setTimes(*wave);
  if (shot.waves.empty()) {
    // One waveform per channel: no second allocation for that of the other one.
    shot.waves.reserve(2);
    shot.rows.reserve(2);
  }
  shot.waves.push_back(std::move(wave));
  shot.rows.push_back(row.number);
  return state;
}

template <class T>
RowState PeakDetectionFamily<T>::extract(Row const& row, WavePtr const& wave) {
  try {
    return runMethod(row, wave);
  } catch (TooComplex const&) {
    wave->clearPeaks();
    ++report.tooComplex;
    return RowState::TooComplex;
  }
}

template <class T>
RowState PeakDetectionFamily<T>::runMethod(Row const& row, WavePtr const& wave) {
  switch (modus) {
    case FWFModus::ThreePoint:
      gaussVia3Points.apply(row.samples, wave);
      return RowState::Kept;
    case FWFModus::Decomposition:
      gaussDecomposition.apply(row.samples, wave);
      return RowState::Kept;
    case FWFModus::Deconvolution:
      return deconvolve(row, wave);
    case FWFModus::Hybrid:
      // Deconvolution sharpens weak echoes of the low-power channel; strong ones fit well without it.
      if (wave->maxAmplitude <= strongSignal && row.channelFlag != 0) {
        return deconvolve(row, wave);
      }
      gaussDecomposition.apply(row.samples, wave);
      return RowState::Kept;
  }
  return RowState::Kept;  // no method for any other mode
}

template <class T>
RowState PeakDetectionFamily<T>::deconvolve(Row const& row, WavePtr const& wave) {
  if (rlPlanes.apply(row.samples, wave) != 0) {
    return RowState::Kept;
  }
  ++report.tooLongToDeconvolve;
  return RowState::TooLongToDeconvolve;
}

/// Converts positions to times, and the largest sample to decibels.
template <class T>
void PeakDetectionFamily<T>::setTimes(WavePoints<T>& wave) const {
  ScannerDevice const& scanner = onlineEvaluation.scanner;
  auto const timeAt = [&](double idx) { return timeOfPosition(idx, wave.sblTime, scanner); };
  for (Peak& peak : wave.peaks) {
    peak.time = timeAt(peak.idx);
  }
  wave.timeOfMaxAmplitude = timeAt(wave.idxOfMaxAmplitude);
  wave.maxAmplitudeDB = toDecibel(wave.maxAmplitude, scanner.ampl_unit);
}

/// Merges the channels of a shot, and records the waveforms that lost all echoes to the other channel.
template <class T>
void PeakDetectionFamily<T>::mergeChannelsOf(Shot& shot, ChannelFlags const& channelFlags,
                                             ShotEchoes& echoes) {
  auto const isLowPower = [&](std::uint32_t row) { return channelFlags[row] != 0; };
  if (std::none_of(shot.rows.begin(), shot.rows.end(), isLowPower) ||
      std::all_of(shot.rows.begin(), shot.rows.end(), isLowPower)) {
    return;
  }
  echoes.clear();
  for (std::size_t i = 0; i < shot.waves.size(); ++i) {
    echoes.startWaveform(!isLowPower(shot.rows[i]));
    for (Peak const& peak : shot.waves[i]->peaks) {
      echoes.add(peak.time, peak.amplitude);
    }
  }
  echoes.merge(onlineEvaluation.scanner.sampling_time, work);
  std::size_t echo = 0;
  for (std::size_t i = 0; i < shot.waves.size(); ++i) {
    std::list<Peak>& peaks = shot.waves[i]->peaks;
    bool const hadEchoes = !peaks.empty();
    peaks.remove_if([&](Peak const& /*peak*/) { return echoes.isRemoved(echo++); });
    if (hadEchoes && peaks.empty()) {
      report.rowStates[shot.rows[i]] = RowState::MergedIntoOtherChannel;
      ++report.mergedIntoOtherChannel;
    }
  }
}

template <class T>
void PeakDetectionFamily<T>::convertToDecibels(Shot& shot) {
  for (std::size_t i = 0; i < shot.waves.size(); ++i) {
    WavePoints<T>& wave = *shot.waves[i];
    report.statistics.countNaNs += deleteNaNPeaks(wave, shot.rows[i]) ? 1U : 0U;
    for (Peak& peak : wave.peaks) {
      report.amplitudesInCounts.push_back(peak.amplitude);
      peak.amplitude = toDecibel(peak.amplitude, onlineEvaluation.scanner.ampl_unit);
    }
  }
}

template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform
