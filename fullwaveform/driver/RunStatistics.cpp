#include <fullwaveform/driver/RunStatistics.h>

#include <algorithm>
#include <cmath>
#include <fstream>

namespace FullWaveform {
namespace {

/// Share of the block in whole percent, from rounded per mille.
std::string percentage(std::uint32_t count, std::int64_t all) {
  if (all == 0) {
    return "0";
  }
  double const perMille = std::round(1000.0 * static_cast<double>(count) / static_cast<double>(all));
  return std::to_string(static_cast<std::int64_t>(perMille * 0.1));
}

std::string shareLine(std::string const& label, std::uint32_t count, std::int64_t all) {
  return label + std::to_string(count) + " -> " + percentage(count, all) + "[%] \n";
}

}  // namespace

void RunStatistics::countSegments(std::size_t segments) {
  ++splitCounts[std::min(segments, splitCounts.size() - 1)];
}

bool RunStatistics::isSuspicious() const {
  // In an empty block the ratio is NaN, which is not below the limit.
  auto const isLow = [this](std::uint32_t count) {
    return static_cast<double>(count) / static_cast<double>(numberOfWaves) < warningRatio;
  };
  return !(isLow(signalTooLow) && isLow(duplicates) && isLow(countNaNs));
}

std::string RunStatistics::record() const {
  // The format has no line feed after the number of waveforms.
  std::string text = "NumberOfWaves: " + std::to_string(numberOfWaves);
  for (std::size_t i = 0; i < splitCounts.size(); ++i) {
    text += "Splitted FWFs: " + std::to_string(i) + " count: " + std::to_string(splitCounts[i]) + "\n";
  }
  return text + shareLine("SignalTooLow: ", signalTooLow, numberOfWaves) +
         shareLine("Duplicates: ", duplicates, numberOfWaves) +
         shareLine("CountNaNs: ", countNaNs, numberOfWaves);
}

std::filesystem::path RunStatistics::reportPath() const {
  return outputDirectory / (inputFile.filename().stem().string() + "_Warning.txt");
}

void RunStatistics::writeIfSuspicious() const {
  if (!isSuspicious()) {
    return;
  }
  std::ofstream file(reportPath(), std::ios::app);
  std::string const text = record();
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace FullWaveform
