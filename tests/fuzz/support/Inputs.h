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
#include "support/TestWaveforms.h"
#include "support/Require.h"
#include "support/SkewedScanner.h"

namespace FullWaveform::Fuzz {

/// A scanner as its attributes might describe it: every number is arbitrary, sizes are kept small enough for
/// many inputs a second. Layout: kind of system wave; offset and half-width of the after-pulse (four bytes
/// each); bin shift, sampling interval, t_ref, group velocity, unambiguous range, unit of the amplitudes.
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

/// A record and its waveform. The record stands in a heap block of exactly its size, so that the address
/// sanitizer sees a read on either side of it.
struct Record {
  Testing::Samples samples;
  std::unique_ptr<unsigned short[]> block;
  WavePtr wave;
};

/// Layout: noise (two bytes, below 0: estimate it), channel flag, the samples.
inline Record recordFrom(Bytes& bytes, ScannerDevice const& scanner) {
  int const noise = bytes.raw<std::int16_t>();
  unsigned char const channel = bytes.byte();
  Record record;
  record.samples = bytes.samples();
  record.block = Testing::onHeap(record.samples);
  record.wave = WavePtr(new WavePoints<unsigned short>(
      record.block.get(), channel, 0.0, 0.0, static_cast<int>(record.samples.size()), noise, scanner));
  return record;
}

inline bool sameBits(double left, double right) {
  return std::memcmp(&left, &right, sizeof(double)) == 0;
}

/// Echoes bit for bit; every NaN is like every other only with the same bits.
inline bool sameEchoes(std::list<Peak> const& left, std::list<Peak> const& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](Peak const& a, Peak const& b) {
    return sameBits(a.amplitude, b.amplitude) && sameBits(a.idx, b.idx) && sameBits(a.std, b.std) &&
           a.quality == b.quality && a.type == b.type && a.classification == b.classification;
  });
}

/// Runs a method twice on the record, the second time with a working memory that is no longer fresh.
template <class Method>
void expectSameTwice(Method& method, Record const& record) {
  method.apply(record.block.get(), record.wave);
  std::list<Peak> const first = record.wave->peaks;
  require(first.size() <= 2 * record.samples.size(), "no more echoes than two per sample");
  record.wave->clearPeaks();
  method.apply(record.block.get(), record.wave);
  require(sameEchoes(first, record.wave->peaks), "the same record twice gives the same echoes");
}

}  // namespace FullWaveform::Fuzz
