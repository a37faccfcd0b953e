#include <fullwaveform/driver/BlockMismatch.h>

#include <string>

#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {

void reportMismatches(BlockMismatch const& mismatch, std::size_t rowLength) {
  std::string text;
  auto const add = [&text](std::string const& what, std::size_t count, std::string const& reason) {
    if (count != 0) {
      text += (text.empty() ? " " : ", ") + what + ": " + std::to_string(count) + reason;
    }
  };
  add("invalid rows", mismatch.invalidRows, " (no samples, NaN shot time, or a missing array value)");
  add("clipped sample counts", mismatch.clippedCounts, " (row length " + std::to_string(rowLength) + ")");
  add("surplus array values", mismatch.surplusValues, "");
  if (!text.empty()) {
    logMessage("PeakDetectionFamily::apply:" + text);
  }
}

void reportSkipped(std::uint32_t tooLongToDeconvolve, std::uint32_t tooComplex) {
  if (tooLongToDeconvolve != 0) {
    logMessage(
        "PeakDetectionFamily::apply: waveforms not deconvolved: " + std::to_string(tooLongToDeconvolve) +
        " (no system wave, or longer than the deconvolution was built for)");
  }
  if (tooComplex != 0) {
    logMessage("PeakDetectionFamily::apply: waveforms too complex: " + std::to_string(tooComplex) +
               " (their work would exceed the limit)");
  }
}

}  // namespace FullWaveform
