#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/driver/BlockReport.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Waveforms of a block, in rows of equal length.
struct SampleRows {
  unsigned short const* first;             ///< counts
  std::ptrdiff_t step;                     ///< samples from one row to the next
  std::span<unsigned short const> counts;  ///< valid samples of each row

  [[nodiscard]] std::span<unsigned short const> operator[](std::size_t row) const {
    return {first + static_cast<std::ptrdiff_t>(row) * step, counts[row]};
  }
};

/// Echoes of a block that were found by a method outside the driver.
struct FoundEchoes {
  std::span<std::int64_t const> rows;  ///< of the block, ascending
  std::span<double const> positions;   ///< samples
  std::span<double const> amplitudes;  ///< counts as the digitiser stores them, above 0
};

/// What becomes of an echo by the rules of the driver.
enum class EchoState : std::uint8_t {
  Kept = 0,
  AfterPulse = 1,      ///< in the after-pulse window of a strong waveform
  InOtherChannel = 2,  ///< the copy of the other channel of the shot is kept
};

/// Time of a position, s.
double timeOfPosition(double position, double sblTime, ScannerDevice const& scanner);

/// Which waveforms a method outside the driver has to process, by the rules of the driver.
///
/// @param shotTimes  s, one per row; waveforms of equal time are one shot
/// @return states `Duplicate` for a waveform with the signature of an earlier one of its shot, `InvalidRow`
///         without samples or with a NaN shot time, else `Kept`; statistics without segments above a
///         threshold
FULLWAVEFORM_EXPORT BlockReport reportOfRows(SampleRows const& samples, std::span<double const> shotTimes);

/// Times of echoes that a method outside the driver found, in s, and their states.
struct EchoRules {
  std::vector<double> times;
  std::vector<EchoState> states;
};

/// Applies the rules of the driver for after-pulses, then for echoes in both channels of a shot.
///
/// The times have one value per row of the block, `channelFlags` too: 0 for high power.
/// @param scanner  with the sampling interval of the block
/// @param work     lets the merge be cancelled: waveforms without shot times are all of one shot
/// @throws Cancelled
FULLWAVEFORM_EXPORT EchoRules applyEchoRules(SampleRows const& samples, std::span<double const> shotTimes,
                                             std::span<double const> sblTimes,
                                             std::span<unsigned char const> channelFlags,
                                             FoundEchoes const& echoes, ScannerDevice const& scanner,
                                             WorkMeter& work);

}  // namespace FullWaveform
