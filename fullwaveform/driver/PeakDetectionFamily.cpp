#include <fullwaveform/driver/PeakDetectionFamily.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <utility>

#include <fullwaveform/driver/ChannelMerge.h>
#include <fullwaveform/driver/Decibel.h>
#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/SpeakPtr.h>
#include <fullwaveform/model/MarkBadPeaks.h>

namespace FullWaveform {
namespace {

/// Cheap fingerprint of a record: the sum of every third sample.
std::uint32_t signatureOf(std::span<unsigned short const> record) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < record.size(); i += 3) {
    sum += record[i];
  }
  return sum;
}

template <class T>
T const* rowOf(Kestra::MemArray<2, T> const& waveforms, std::size_t row) {
  if (waveforms.hasAccessor()) {
    return waveforms.rowAccessor()(row);
  }
  T const* const storage = waveforms.storage();
  return storage == nullptr ? nullptr : storage + row * waveforms.columns();
}

/// Above this many counts the hybrid decomposes, whatever the scanner.
constexpr unsigned short strongSignal = 1800;

/// What of a block does not fit together.
struct Misfits {
  std::size_t unplaced = 0;      ///< rows
  std::size_t cutCounts = 0;     ///< rows
  std::size_t valuesBeyond = 0;  ///< of the longest array, behind the last row
};

void speak(Misfits const& misfits, std::size_t columns) {
  std::string text;
  auto const add = [&text](std::size_t count, std::string const& what) {
    if (count != 0) {
      text += (text.empty() ? " " : ", ") + std::to_string(count) + " " + what;
    }
  };
  add(misfits.unplaced, "waveforms left out (no samples, no shot time, or no value in one of the arrays)");
  add(misfits.cutCounts, "sample counts cut to the row length " + std::to_string(columns));
  add(misfits.valuesBeyond, "values without a waveform");
  if (!text.empty()) {
    Holdex::Console console;
    console << "PeakDetectionFamily::apply:" << text;
  }
}

void speakOfPlanes(std::uint32_t tooLongToDeconvolve) {
  if (tooLongToDeconvolve == 0) {
    return;
  }
  Holdex::Console console;
  console << "PeakDetectionFamily::apply: " << std::to_string(tooLongToDeconvolve)
          << " waveforms without echoes (no system wave, or longer than the deconvolution was built for)";
}

bool isInvalid(Peak const& peak) {
  return std::isnan(peak.idx) || std::isnan(peak.time) || std::isnan(peak.amplitude);
}

/// Deletes the invalid points of a waveform that reports some; true when it did.
template <class T>
bool deleteInvalidPoints(WavePoints<T>& wave, std::uint32_t row) {
  if (!wave.isNaN()) {
    return false;
  }
  Holdex::Console console;
  console << "Warning, delete NAN-points for wave " << std::to_string(row);
  wave.peaks.remove_if(isInvalid);
  return true;
}

/// Blocks mostly come in the order of their shots, so the last shot is looked at first.
Shot& shotAt(double time, ShotMap& shots) {
  if (!shots.empty() && shots.rbegin()->first == time) {
    return shots.rbegin()->second;
  }
  return shots.try_emplace(shots.end(), time)->second;
}

/// Merges every waveform of the normal channel (flag 0) with every one of the low-power channel, in their
/// order of arrival.
void mergeShot(Shot& shot, Kestra::MultiArray<1, unsigned char> const& channelFlags,
               double samplingInterval) {
  auto const isLowPower = [&](std::uint32_t row) { return channelFlags[row] != 0; };
  if (std::none_of(shot.rows.begin(), shot.rows.end(), isLowPower)) {
    return;
  }
  for (std::size_t a = 0; a < shot.waves.size(); ++a) {
    if (channelFlags[shot.rows[a]] != 0) {
      continue;
    }
    for (std::size_t b = 0; b < shot.waves.size(); ++b) {
      if (channelFlags[shot.rows[b]] != 0) {
        mergeChannels(shot.waves[a]->peaks, shot.waves[b]->peaks, samplingInterval);
      }
    }
  }
}

}  // namespace

template <class T>
struct PeakDetectionFamily<T>::Row {
  std::uint32_t number;
  T const* samples;
  int count;
  double shotTime;
  double sblTime;
  unsigned char channelFlag;
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
                                      Kestra::MultiArray<1, unsigned char> const& channelFlags,
                                      int const& noise, std::string const& /*hostText*/) {
  trace = {};
  trace.started = std::chrono::system_clock::now();
  if (!waveforms) {
    Holdex::SpeakPtr::report("PeakDetectionFamily::apply: an empty pointer instead of waveforms");
  }
  std::size_t const rows = waveforms ? waveforms->rows() : 0;
  std::size_t const columns = waveforms ? waveforms->columns() : 0;
  auto const [shortest, longest] =
      std::minmax({counts.size(), shotTimes.size(), sblTimes.size(), channelFlags.size()});
  std::size_t const placeable = std::min(rows, shortest);
  trace.statistics.outputDirectory = outputDirectory;
  trace.statistics.inputFile = inputFile;
  trace.statistics.numberOfWaves = static_cast<std::int64_t>(rows);
  trace.rowStates.assign(rows, RowState::InvalidRow);

  ShotMap shots;
  Misfits misfits;
  misfits.valuesBeyond = longest > rows ? longest - rows : 0;
  for (std::size_t i = 0; i < placeable; ++i) {
    T const* const samples = rowOf(*waveforms, i);
    int const count = static_cast<int>(std::min<std::size_t>(counts[i], columns));
    // A waveform of no samples is one all the same, wherever its row stands.
    if (std::isnan(shotTimes[i]) || (samples == nullptr && count > 0)) {
      continue;
    }
    misfits.cutCounts += counts[i] > columns ? 1U : 0U;
    Row const row{static_cast<std::uint32_t>(i), samples, count, shotTimes[i], sblTimes[i], channelFlags[i]};
    trace.rowStates[i] = processRow(row, noise, shots);
  }
  misfits.unplaced = static_cast<std::size_t>(
      std::count(trace.rowStates.begin(), trace.rowStates.end(), RowState::InvalidRow));
  speak(misfits, columns);
  speakOfPlanes(trace.tooLongToDeconvolve);

  for (auto& [time, shot] : shots) {
    finishShot(shot, channelFlags);
  }
  trace.statistics.writeWhenSuspicious();
  trace.finished = std::chrono::system_clock::now();
  return shots;
}

template <class T>
RowState PeakDetectionFamily<T>::processRow(Row const& row, int noise, ShotMap& shots) {
  WavePtr wave(new WavePoints<T>(row.samples, row.channelFlag, row.shotTime, row.sblTime, row.count, noise,
                                 onlineEvaluation.scanner));
  trace.statistics.countSegments(wave->startEnd.size());
  if (!wave->signalIsAboveNoise()) {
    ++trace.statistics.signalTooLow;
    return RowState::SignalTooLow;
  }
  Shot& shot = shotAt(row.shotTime, shots);
  std::span<T const> const record(row.samples, static_cast<std::size_t>(row.count));
  if (!shot.signatures.insert(signatureOf(record)).second) {
    ++trace.statistics.duplicates;
    return RowState::Duplicate;
  }
  RowState const state = extract(row, wave);
  keepGoodPeaks(*wave);
  setTimes(*wave);
  shot.waves.push_back(std::move(wave));
  shot.rows.push_back(row.number);
  return state;
}

template <class T>
RowState PeakDetectionFamily<T>::extract(Row const& row, WavePtr const& wave) {
  switch (modus) {
    case FWFModus::ThreePoint:
      gaussVia3Points.apply(row.samples, wave);
      break;
    case FWFModus::Decomposition:
      gaussDecomposition.apply(row.samples, wave);
      break;
    case FWFModus::Deconvolution:
      return deconvolve(row, wave);
    case FWFModus::Hybrid:
      // Deconvolution sharpens weak echoes of the low-power channel; what is strong fits well as it is.
      if (wave->maxAmplitude > strongSignal || row.channelFlag == 0) {
        gaussDecomposition.apply(row.samples, wave);
      } else {
        return deconvolve(row, wave);
      }
      break;
  }
  return RowState::Kept;
}

template <class T>
RowState PeakDetectionFamily<T>::deconvolve(Row const& row, WavePtr const& wave) {
  if (rlPlanes.apply(row.samples, wave) != 0) {
    return RowState::Kept;
  }
  ++trace.tooLongToDeconvolve;
  return RowState::TooLongToDeconvolve;
}

template <class T>
void PeakDetectionFamily<T>::keepGoodPeaks(WavePoints<T>& wave) const {
  markBadPeaks(wave.peaks, static_cast<int>(wave.globalStart), static_cast<int>(wave.globalEnd), wave.noise);
  wave.peaks.remove_if([](Peak const& peak) { return peak.quality != GOOD; });
  wave.sort_idx();
}

template <class T>
void PeakDetectionFamily<T>::setTimes(WavePoints<T>& wave) const {
  ScannerDevice const& scanner = onlineEvaluation.scanner;
  double const recordStart = wave.sblTime - scanner.t_ref;
  auto const timeAt = [&](double index) { return index * scanner.sampling_time + recordStart; };
  for (Peak& peak : wave.peaks) {
    peak.time = timeAt(peak.idx);
  }
  wave.timeOfMaxAmplitude = timeAt(wave.idxOfMaxAmplitude);
  wave.maxAmplitudeDB = toDecibel(wave.maxAmplitude, scanner.ampl_unit);
}

template <class T>
void PeakDetectionFamily<T>::finishShot(Shot& shot,
                                        Kestra::MultiArray<1, unsigned char> const& channelFlags) {
  ScannerDevice const& scanner = onlineEvaluation.scanner;
  mergeAndTrace(shot, channelFlags);
  for (std::size_t i = 0; i < shot.waves.size(); ++i) {
    WavePoints<T>& wave = *shot.waves[i];
    trace.statistics.countNaNs += deleteInvalidPoints(wave, shot.rows[i]) ? 1U : 0U;
    for (Peak& peak : wave.peaks) {
      trace.amplitudesInCounts.push_back(peak.amplitude);
      peak.amplitude = toDecibel(peak.amplitude, scanner.ampl_unit);
    }
  }
}

template <class T>
void PeakDetectionFamily<T>::mergeAndTrace(Shot& shot,
                                           Kestra::MultiArray<1, unsigned char> const& channelFlags) {
  if (shot.waves.size() < 2) {
    return;
  }
  std::vector<bool> found;
  found.reserve(shot.waves.size());
  for (WavePtr const& wave : shot.waves) {
    found.push_back(!wave->peaks.empty());
  }
  mergeShot(shot, channelFlags, onlineEvaluation.scanner.sampling_time);
  for (std::size_t i = 0; i < shot.waves.size(); ++i) {
    if (found[i] && shot.waves[i]->peaks.empty()) {
      trace.rowStates[shot.rows[i]] = RowState::MergedIntoOtherChannel;
      ++trace.mergedIntoOtherChannel;
    }
  }
}

template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform
