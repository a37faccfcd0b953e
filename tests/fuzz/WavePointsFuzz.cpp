// The waveform object: construction from arbitrary samples, and all its operations.
#include <algorithm>
#include <limits>

#include <fullwaveform/model/MarkBadPeaks.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;
using Wave = WavePoints<unsigned short>;

void requireValidAnalysis(Wave const& wave, Testing::Samples const& samples) {
  unsigned short maximum = 0;
  for (std::size_t i = 1; i + 1 < samples.size(); ++i) {
    maximum = std::max(maximum, samples[i]);
  }
  require(wave.maxAmplitude == maximum, "the maximum of the inner samples");
  require(wave.length == samples.size(), "the length of the waveform");
  std::uint32_t last = 0;
  for (auto const& [start, end] : wave.startEnd) {
    require(samples.size() < 4 || (start >= last && end < samples.size()),
            "segments ascend inside the waveform");
    last = end;
  }
}

Peak peakFrom(Bytes& bytes) {
  double const amplitude = bytes.number();
  double const idx = bytes.number();
  double const time = bytes.number();
  auto const type = static_cast<TYPE>(bytes.upTo(8));
  auto const quality = static_cast<QUALITY>(bytes.upTo(3));
  return {amplitude, idx, time, type, quality, bytes.number(), bytes.byte(), bytes.narrowNumber()};
}

void useList(Wave& wave, Bytes& bytes, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) {
    wave.push_back(peakFrom(bytes));
  }
  wave.testIfAfterPulse();
  wave.sort_time();
  wave.sort_idx();
  wave.setClassification(bytes.byte());
  std::string const text = wave.print() + wave.printLengthAtMaxAmplitude(bytes.number());
  require(text.find("\n") != std::string::npos, "a report has lines");
  wave.exportToAscii("/dev/null", bytes.text(8), bytes.number());
  static_cast<void>(wave.isOnline() || wave.isNaN());
  markBadPeaks<unsigned short>(wave.peaks, static_cast<int>(wave.globalStart),
                               static_cast<int>(wave.globalEnd), wave.noise);
  removeBadPeaks(wave.peaks);
  require(wave.size() <= count, "removing bad peaks adds none");
  wave.clearPeaks();
  require(wave.size() == 0, "a cleared list is empty");
}

/// Invalid lengths and pointers: no sample may be read.
void buildWithInvalidArguments(Bytes& bytes, unsigned short const* samples, ScannerDevice const& scanner) {
  int const noise = bytes.raw<std::int32_t>() & std::numeric_limits<std::int32_t>::max();
  int const notPositive = -static_cast<int>(bytes.byte());
  require(Wave(samples, 1, 0.0, 0.0, notPositive, noise, scanner).startEnd.empty(),
          "no segments without samples");
  require(Wave(nullptr, 0, 0.0, 0.0, 1 + bytes.byte(), -1, scanner).startEnd.empty(),
          "no segments for a null pointer");
  try {
    Wave const invalid(samples, 0, 0.0, 0.0, notPositive - 1, -1, scanner);
    require(false, "the noise estimate throws for a negative length");
  } catch (std::length_error const&) {
  }
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  ScannerDevice const scanner = Fuzz::scannerFrom(bytes);
  unsigned int const echoes = bytes.upTo(4);
  Fuzz::Bytes forEchoes = bytes;
  Fuzz::Waveform const waveform = Fuzz::waveformFrom(bytes, scanner);
  requireValidAnalysis(*waveform.wave, waveform.samples);
  buildWithInvalidArguments(forEchoes, waveform.block.get(), scanner);
  useList(*waveform.wave, forEchoes, echoes);
  return 0;
}
