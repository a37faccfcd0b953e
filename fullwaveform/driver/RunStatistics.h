#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include <fullwaveform/Export.h>

namespace FullWaveform {

/// What became of one block of waveforms, and whether an operator should hear of it.
class FULLWAVEFORM_EXPORT RunStatistics {
 public:
  std::filesystem::path outputDirectory;
  std::filesystem::path inputFile;
  std::int64_t numberOfWaves = 0;
  double warningRatio = 0.5;
  std::array<std::uint32_t, 10> splitCounts{};  ///< waveforms by number of segments; the last: nine or more
  std::uint32_t signalTooLow = 0;               ///< waveforms whose signal is not above the noise
  std::uint32_t duplicates = 0;                 ///< waveforms that repeat one of their shot
  std::uint32_t countNaNs = 0;                  ///< waveforms with invalid points

  void countSegments(std::size_t segments);

  /// True when one of the three classes holds at least `warningRatio` of the block, or the block is empty.
  [[nodiscard]] bool isSuspicious() const;

  /// The record of a suspicious block.
  [[nodiscard]] std::string record() const;

  /// Where records go: the output directory, the input file's stem followed by "_Warning.txt".
  [[nodiscard]] std::filesystem::path reportPath() const;

  /// Appends the record when the block is suspicious. A file that cannot be opened is skipped silently.
  void writeWhenSuspicious() const;
};

}  // namespace FullWaveform
