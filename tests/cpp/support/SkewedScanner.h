#pragma once

#include <complex>
#include <cstdint>
#include <utility>
#include <vector>

#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform::Testing {

inline ScannerDevice::ComplexTable complexTable(std::vector<std::complex<double>> values) {
  return Holdex::makeStrong<Holdex::Chunk<std::complex<double>>>(std::move(values));
}

/// Scanner of 1 ns samples whose system wave is exp(-t / 4 ns) (1 - cos(t / 2 ns)): it rises faster than it
/// falls, so that a mirrored kernel is detected.
inline ScannerDevice skewedScanner(std::uint32_t upSampling = 5) {
  ScannerDevice scanner;
  scanner.sampling_time = 1e-9;
  scanner.up_sampling = upSampling;
  scanner.expsum_a = complexTable({1.0, -0.5, -0.5});
  scanner.expsum_b = complexTable({-2.5e8, {-2.5e8, 5e8}, {-2.5e8, -5e8}});
  return scanner;
}

}  // namespace FullWaveform::Testing
