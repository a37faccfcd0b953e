#pragma once

#include <complex>
#include <cstdint>
#include <cstring>
#include <list>
#include <utility>
#include <vector>

#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "support/Bytes.h"
#include "support/Require.h"
#include "support/SkewedScanner.h"
#include "support/TestWaveforms.h"

namespace FullWaveform::Fuzz {

/// A scanner with arbitrary numbers, but sizes small enough for many inputs per second. Layout: kind of
/// system wave; offset and half-width of the after-pulse window (four bytes each); bin shift, sampling
/// interval, t_ref, group velocity, unambiguous range, amplitude unit.
inline ScannerDevice scannerFrom(Bytes& bytes) {
  std::uint8_t const kind = bytes.byte();
  ScannerDevice scanner = Testing::skewedScanner();
  scanner.afterpulse_offset = bytes.raw<std::uint32_t>();
  scanner.afterpulse_width = bytes.raw<std::uint32_t>();
  scanner.bin_shift = bytes.number();
  scanner.sampling_time = bytes.number();
  scanner.t_ref = bytes.number();
  scanner.group_velocity = bytes.number();
  scanner.unambiguous_range = bytes.number();
  scanner.ampl_unit = bytes.number();
  if ((kind & 1U) != 0) {
    scanner.up_sampling = bytes.upTo(7);
    scanner.size_sys = bytes.upTo(40);
  }
  if ((kind & 2U) != 0) {
    scanner.expsum_a = {};
  }
  if ((kind & 4U) != 0) {
    std::vector<double> const parts = bytes.numbers(8);
    scanner.expsum_a = Testing::complexTable({{parts[0], parts[1]}, {parts[2], parts[3]}});
    scanner.expsum_b = Testing::complexTable({{parts[4], parts[5]}, {parts[6], parts[7]}});
  }
  return scanner;
}

/// A waveform with its samples. These are in a heap block of exactly their size, so that the address
/// sanitizer detects a read on either side.
struct Waveform {
  Testing::Samples samples;
  std::unique_ptr<unsigned short[]> block;
  WavePtr wave;
};

/// Layout: noise (two bytes, estimated when negative), channel flag, the samples.
inline Waveform waveformFrom(Bytes& bytes, ScannerDevice const& scanner) {
  int const noise = bytes.raw<std::int16_t>();
  unsigned char const channel = bytes.byte();
  Waveform waveform;
  waveform.samples = bytes.samples();
  waveform.block = Testing::onHeap(waveform.samples);
  waveform.wave = WavePtr(new WavePoints<unsigned short>(
      waveform.block.get(), channel, 0.0, 0.0, static_cast<int>(waveform.samples.size()), noise, scanner));
  return waveform;
}

inline bool sameBits(double left, double right) {
  return std::memcmp(&left, &right, sizeof(double)) == 0;
}

/// Whether echoes are bit-identical, NaN included.
inline bool sameEchoes(std::list<Peak> const& left, std::list<Peak> const& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](Peak const& a, Peak const& b) {
    return sameBits(a.amplitude, b.amplitude) && sameBits(a.idx, b.idx) && sameBits(a.std, b.std) &&
           a.quality == b.quality && a.type == b.type && a.classification == b.classification;
  });
}

/// Applies a method twice, the second time with working memory that has been used; requires equal echoes.
template <class Method>
void requireSameTwice(Method& method, Waveform const& waveform) {
  method.apply(waveform.block.get(), waveform.wave);
  std::list<Peak> const first = waveform.wave->peaks;
  require(first.size() <= 2 * waveform.samples.size(), "at most two echoes per sample");
  waveform.wave->clearPeaks();
  method.apply(waveform.block.get(), waveform.wave);
  require(sameEchoes(first, waveform.wave->peaks), "repeating a waveform gives the same echoes");
}

}  // namespace FullWaveform::Fuzz
