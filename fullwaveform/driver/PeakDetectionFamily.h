#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/driver/BlockReport.h>
#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/ShotMap.h>
#include <fullwaveform/fitting/FittingGaussVia3Points.h>
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/online/OnlineEvaluation.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

class ShotEchoes;
struct BlockMismatch;

/// The driver: runs one extraction method over blocks of waveforms.
///
/// Built once per scan. Its methods keep working memory, so one driver serves one thread at a time.
template <class T>
class PeakDetectionFamily {
 public:
  FWFModus modus;
  OnlineEvaluation<T> onlineEvaluation;  ///< holds the scanner that every waveform is built with
  std::filesystem::path outputDirectory;
  std::filesystem::path inputFile;
  std::string message;  ///< why the deconvolution cannot run, in modes 2 and 3; otherwise empty
  FittingGaussVia3Points<T, ZeroCrossing> gaussVia3Points;
  FittingGaussViaDecomposition<T, ZeroCrossing> gaussDecomposition;
  RL_Planes<T, ZeroCrossing> rlPlanes;
  /// Limit of the work on a waveform, cancellation and progress; without limit and monitor as constructed.
  WorkMeter work;

  using Waveforms = Holdex::StrongPtr<Kestra::MemArray<2, T>>;

  /// @param modus            the method
  /// @param scanner          copied
  /// @param outputDirectory  directory of the statistics file, to which suspicious blocks are appended
  /// @param inputFile        its stem names the statistics file
  /// @param rlParameter      longest waveform that will be deconvolved, in samples. If the scanner has
  ///                         exponential sums, the transforms are planned here, in every mode; see
  ///                         `RL_Planes`.
  ///
  /// All methods are built in every mode. If the deconvolution that a waveform needs
  /// cannot run, the waveform gets no echoes.
  FULLWAVEFORM_EXPORT PeakDetectionFamily(FWFModus const& modus, ScannerDevice const& scanner,
                                          std::filesystem::path const& outputDirectory,
                                          std::filesystem::path const& inputFile,
                                          unsigned int const& rlParameter);

  /// Extracts the echoes of a block. The per-waveform arrays have one value per row of the block.
  ///
  /// @param waveforms     samples in counts, one row per waveform
  /// @param counts        valid samples of each row; clipped to the row length
  /// @param shotTimes     s; waveforms of equal time are one shot
  /// @param sblTimes      s
  /// @param channelFlags  0: high power, otherwise low power (only 1 sets `isLowPower`)
  /// @param noise         threshold in counts; negative: estimated for every waveform
  /// @param hostText      ignored
  /// @return the shots with their waveforms and final echoes: times in s, amplitudes in dB
  ///
  /// Rows with a NaN shot time or without a value in one of the arrays are skipped; one console message per
  /// block counts them, the clipped counts and the values without a row.
  ///
  /// A waveform whose work exceeds `work.limit` gets no echoes. Throws `Cancelled` when the monitor of `work`
  /// is cancelled, and what its `poll` throws; then the block has no result, and the driver can be used
  /// again.
  FULLWAVEFORM_EXPORT ShotMap apply(Waveforms const& waveforms,
                                    Kestra::MultiArray<1, unsigned short> const& counts,
                                    Kestra::MultiArray<1, double> const& shotTimes,
                                    Kestra::MultiArray<1, double> const& sblTimes,
                                    Kestra::MultiArray<1, unsigned char> const& channelFlags,
                                    int const& noise, std::string const& hostText);

  /// Extracts the echoes of a block, each row with its own threshold.
  ///
  /// @param noises  thresholds in counts, one per row; negative: estimated for this waveform
  ///
  /// Waveforms of a shot may differ in their thresholds, as receivers of different gain do. All else is as
  /// for one threshold.
  FULLWAVEFORM_EXPORT ShotMap apply(Waveforms const& waveforms,
                                    Kestra::MultiArray<1, unsigned short> const& counts,
                                    Kestra::MultiArray<1, double> const& shotTimes,
                                    Kestra::MultiArray<1, double> const& sblTimes,
                                    Kestra::MultiArray<1, unsigned char> const& channelFlags,
                                    std::span<int const> noises, std::string const& hostText);

  /// Takes the shots of a part of a block. The report has the states and the amplitudes in counts of this
  /// part and of those before it.
  using PartReceiver = std::function<void(ShotMap const& shots, BlockReport const& report)>;

  /// Extracts the echoes of a block as `apply` does, and passes its shots on in parts.
  ///
  /// Shots ascend over all parts, which together have what `apply` returns. A part is released before the
  /// next one, so that its memory stays in the cache and a large block takes less time. A block
  /// whose shot times do not ascend has one part. What `receive` throws ends the call.
  FULLWAVEFORM_EXPORT void applyInParts(Waveforms const& waveforms,
                                        Kestra::MultiArray<1, unsigned short> const& counts,
                                        Kestra::MultiArray<1, double> const& shotTimes,
                                        Kestra::MultiArray<1, double> const& sblTimes,
                                        Kestra::MultiArray<1, unsigned char> const& channelFlags,
                                        std::span<int const> noises, PartReceiver const& receive);

  /// Report of the last block given to `apply` or `applyInParts`.
  [[nodiscard]] BlockReport const& lastBlock() const { return report; }

 private:
  struct Row;
  struct Rows;

  template <class EndOfPart, class Receive>
  void extractParts(Rows const& block, EndOfPart const& endOfPart, Receive const& receive);
  ShotMap extractPart(Rows const& block, std::size_t first, std::size_t end);
  [[nodiscard]] BlockMismatch mismatchOf(Rows const& block) const;
  void startReport(std::size_t rows);
  RowState processRow(Row const& row, int noise, ShotMap& shots);
  RowState extract(Row const& row, WavePtr const& wave);
  RowState runMethod(Row const& row, WavePtr const& wave);
  RowState deconvolve(Row const& row, WavePtr const& wave);
  void setTimes(WavePoints<T>& wave) const;
  void mergeChannelsOf(Shot& shot, Kestra::MultiArray<1, unsigned char> const& channelFlags,
                       ShotEchoes& echoes);
  void convertToDecibels(Shot& shot);

  BlockReport report;
};

extern template class PeakDetectionFamily<unsigned short>;

}  // namespace FullWaveform
