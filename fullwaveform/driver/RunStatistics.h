#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// Counters of one block of waveforms, written to a warning file if they are suspicious.
class FULLWAVEFORM_EXPORT RunStatistics {
 public:
  std::filesystem::path outputDirectory;
  std::filesystem::path inputFile;
  std::int64_t numberOfWaves = 0;
  double warningRatio = 0.5;
  std::array<std::uint32_t, 10>
      splitCounts{};               ///< waveforms by number of segments; the last entry counts nine or more
  std::uint32_t signalTooLow = 0;  ///< waveforms whose signal is not above the threshold
  std::uint32_t duplicates = 0;    ///< waveforms with the signature of an earlier one of their shot
  std::uint32_t countNaNs = 0;     ///< waveforms with NaN echoes

  void countSegments(std::size_t segments);

  /// True if one of the last three counters is at least `warningRatio` of the block, or the block is empty.
  [[nodiscard]] bool isSuspicious() const;

  /// The counters as text.
  [[nodiscard]] std::string record() const;

  /// Path of the warning file: in the output directory, the input file's stem followed by "_Warning.txt".
  [[nodiscard]] std::filesystem::path reportPath() const;

  /// Appends the record if the block is suspicious. A file that cannot be opened is skipped silently.
  void writeIfSuspicious() const;
};

}  // namespace FullWaveform
