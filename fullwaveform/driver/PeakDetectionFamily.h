#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/RunStatistics.h>
#include <fullwaveform/driver/ShotMap.h>
#include <fullwaveform/fitting/FittingGaussVia3Points.h>
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/online/OnlineEvaluation.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// What became of one row of a block.
enum class RowState : std::uint8_t {
  Kept = 0,                   ///< its waveform is in the shot map, with the echoes that were found
  SignalTooLow = 1,           ///< its strongest sample is not above the noise
  Duplicate = 2,              ///< its shot held a waveform of the same signature already
  InvalidRow = 3,             ///< no samples, no shot time, or no value in one of the arrays: not looked at
  TooLongToDeconvolve = 4,    ///< in the shot map without echoes: no deconvolution could take it
  MergedIntoOtherChannel = 5  ///< in the shot map without echoes: all of them stand in the other channel
};

/// What the driver remembers of its last block, beside the shot map.
struct BlockReport {
  RunStatistics statistics;
  std::uint32_t mergedIntoOtherChannel = 0;  ///< waveforms whose echoes all stand in the other channel
  std::uint32_t tooLongToDeconvolve = 0;     ///< waveforms that no deconvolution could take
  std::vector<RowState> rowStates;           ///< one per row of the block
  std::chrono::system_clock::time_point started;
  std::chrono::system_clock::time_point finished;
  std::vector<float> amplitudesInCounts;  ///< every echo of the map before decibels, in the map's order
};

/// The entry of the library: runs one extraction method over blocks of waveforms.
///
/// Built once per scan. Its methods keep working memory, so one driver serves one thread at a time.
template <class T>
class FULLWAVEFORM_EXPORT PeakDetectionFamily {
 public:
  FWFModus modus;
  OnlineEvaluation<T> onlineEvaluation;  ///< holds the scanner that every waveform is built with
  std::filesystem::path outputDirectory;
  std::filesystem::path inputFile;
  std::string message;  ///< for the operator; empty when there is nothing to say
  FittingGaussVia3Points<T, ZeroCrossing> gaussVia3Points;
  FittingGaussViaDecomposition<T, ZeroCrossing> gaussDecomposition;
  RL_Planes<T, ZeroCrossing> rlPlanes;

  using Waveforms = Holdex::StrongPtr<Kestra::MemArray<2, T>>;

  /// @param modus            the method
  /// @param scanner          copied
  /// @param outputDirectory  where the run statistics of suspicious blocks are appended
  /// @param inputFile        names the file of the run statistics
  /// @param rlParameter      longest waveform for the deconvolution, samples. With exponential sums in the
  ///                         scanner its transforms are planned here, in every mode; see `RL_Planes`.
  ///
  /// All methods are built in every mode. `message` says in modes 2 and 3 why the deconvolution cannot run;
  /// a block that is given all the same gets waveforms without echoes where it would have been needed.
  PeakDetectionFamily(FWFModus const& modus, ScannerDevice const& scanner,
                      std::filesystem::path const& outputDirectory, std::filesystem::path const& inputFile,
                      unsigned int const& rlParameter);

  /// Extracts the echoes of a block; all per-waveform arrays run along the rows of the block.
  ///
  /// @param waveforms     samples in counts, a row per waveform
  /// @param counts        valid samples of each row; cut to the row's width
  /// @param shotTimes     s; waveforms of equal time are one shot
  /// @param sblTimes      s
  /// @param channelFlags  0: normal channel, otherwise low power (1 is also kept as `isLowPower`)
  /// @param noise         counts; negative: estimate it for every waveform
  /// @param hostText      the host's note on the block; changes nothing
  /// @return the shots with their waveforms and final echoes: times in s, amplitudes in dB
  ///
  /// Rows that cannot be placed (an array too short, a shot time that is not a number) are left out; one
  /// console message per block says how many, how many counts were cut, and how many values have no row.
  ShotMap apply(Waveforms const& waveforms, Kestra::MultiArray<1, unsigned short> const& counts,
                Kestra::MultiArray<1, double> const& shotTimes, Kestra::MultiArray<1, double> const& sblTimes,
                Kestra::MultiArray<1, unsigned char> const& channelFlags, int const& noise,
                std::string const& hostText);

  /// The block that `apply` worked on last.
  [[nodiscard]] BlockReport const& lastBlock() const { return trace; }

 private:
  struct Row;

  RowState processRow(Row const& row, int noise, ShotMap& shots);
  RowState extract(Row const& row, WavePtr const& wave);
  RowState deconvolve(Row const& row, WavePtr const& wave);
  void keepGoodPeaks(WavePoints<T>& wave) const;
  void setTimes(WavePoints<T>& wave) const;
  void finishShot(Shot& shot, Kestra::MultiArray<1, unsigned char> const& channelFlags);
  void mergeAndTrace(Shot& shot, Kestra::MultiArray<1, unsigned char> const& channelFlags);

  BlockReport trace;
};

extern template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform
