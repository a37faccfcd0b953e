#include <cmath>
#include <cstddef>
#include <stdexcept>

#include <gtest/gtest.h>

#include <fullwaveform/deconvolution/DeconvolvedSignal.h>
#include <fullwaveform/deconvolution/RL_Planes.h>

#include "deconvolution/PulseWaveforms.h"
#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

TEST(DeconvolvedSignal, HasTheEchoesOfRlPlanesAtTheirPositions) {
  for (unsigned int const upSampling : {5U, 1U}) {
    SCOPED_TRACE(upSampling);
    ScannerDevice const scanner = skewedScanner(upSampling);
    Samples const samples = waveformWithEchoes(70, {{15.0, 800.0}, {26.0, 350.0}});
    WavePtr const wave = waveOf(samples, scanner);
    DeconvolvedSignal const signal = deconvolvedSignal(samples, *wave, scanner);
    EXPECT_DOUBLE_EQ(signal.step * upSampling, 1.0);
    EXPECT_EQ(signal.values.size(), static_cast<std::size_t>(wave->lengthCropped) * upSampling);
    RL_Planes<unsigned short, ZeroCrossing>(scanner, 70).apply(samples.data(), wave);
    ASSERT_GE(wave->peaks.size(), 2U);
    for (Peak const& peak : wave->peaks) {
      auto const index = static_cast<std::size_t>(std::lround((peak.idx - signal.first) / signal.step));
      ASSERT_LT(index, signal.values.size());
      EXPECT_NEAR(signal.first + static_cast<double>(index) * signal.step, peak.idx, 1e-9);
      // The amplitude is truncated, and transforms of another length may round to below an integer.
      EXPECT_NEAR(signal.values[index], peak.amplitude + 0.5, 0.501);
    }
  }
}

TEST(DeconvolvedSignal, IsEmptyForAWaveformBelowTheNoise) {
  ScannerDevice const scanner = skewedScanner();
  Samples const samples(70, 12);
  WavePoints<unsigned short> const wave(samples.data(), 1, 0.0, 0.0, 70, 20, scanner);
  EXPECT_TRUE(deconvolvedSignal(samples, wave, scanner).values.empty());
}

TEST(DeconvolvedSignal, WithoutASystemWaveThrows) {
  Samples const samples = waveformWithEchoes(70, {{15.0, 800.0}});
  ScannerDevice const scanner = skewedScanner();
  WavePtr const wave = waveOf(samples, scanner);
  EXPECT_THROW(deconvolvedSignal(samples, *wave, ScannerDevice()), std::invalid_argument);
}

}  // namespace
}  // namespace FullWaveform
