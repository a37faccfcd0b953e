// All text output: numbers, echoes, lines of the ASCII export, run statistics, names of modes.
#include <charconv>
#include <cmath>

#include <fullwaveform/driver/FWFModus.h>
#include <fullwaveform/driver/RunStatistics.h>
#include <fullwaveform/model/AsciiExport.h>
#include <fullwaveform/text/Number.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

template <class T>
void requireReadsBack(T value) {
  std::string const text = shortestText(value);
  T back{};
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), back);
  require(error == std::errc() && end == text.data() + text.size(),
          "the text of a number is parsed completely");
  require(back == value || (std::isnan(back) && std::isnan(value)),
          "the text of a number reads back to its value");
}

void reportRun(Bytes& bytes) {
  RunStatistics statistics;
  statistics.numberOfWaves = bytes.raw<std::int64_t>();
  for (std::uint32_t& count : statistics.splitCounts) {
    count = bytes.raw<std::uint32_t>();
  }
  statistics.countSegments(bytes.raw<std::uint32_t>());
  statistics.signalTooLow = bytes.raw<std::uint32_t>();
  statistics.duplicates = bytes.raw<std::uint32_t>();
  statistics.countNaNs = bytes.raw<std::uint32_t>();
  statistics.inputFile = bytes.text(16);
  static_cast<void>(statistics.isSuspicious());
  require(statistics.record().ends_with("[%] \n"), "the statistics end with a percentage");
  require(statistics.reportPath().string().ends_with("_Warning.txt"),
          "the name of a warning file ends with _Warning.txt");
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  requireReadsBack(bytes.number());
  requireReadsBack(bytes.raw<float>());
  static_cast<void>(signedText(bytes.raw<std::uint32_t>()));
  static_cast<void>(getNameOfModus(static_cast<FWFModus>(bytes.raw<std::uint32_t>())));
  std::vector<double> const values = bytes.numbers(4);
  auto const type = static_cast<TYPE>(bytes.upTo(8));
  auto const quality = static_cast<QUALITY>(bytes.upTo(3));
  Peak const peak(values[0], values[1], values[2], type, quality, values[3], bytes.byte(),
                  bytes.raw<float>());
  Fuzz::require(peak.print().ends_with("\n"), "the report of an echo is one line");
  std::string const line = asciiLine(peak, bytes.text(12), bytes.number());
  Fuzz::require(line.ends_with("\n"), "an exported echo is one line");
  static_cast<void>(peak.getIdxAsTime(bytes.number(), bytes.number()));
  reportRun(bytes);
  return 0;
}
