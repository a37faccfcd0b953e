// Inputs on which fuzz targets failed.
#include <stdexcept>

#include <fullwaveform/deconvolution/RichardsonLucy.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <gtest/gtest.h>

#include "support/SkewedScanner.h"
#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using namespace Testing;

TEST(FuzzFindings, ASystemWaveOfOneSampleAndLengthZeroThrow) {
  ScannerDevice scanner = skewedScanner(1);
  scanner.size_sys = 1;
  EXPECT_THROW((RichardsonLucy<unsigned short, ZeroCrossing>(scanner, 0U)), std::length_error);
}

TEST(FuzzFindings, ALongWaveformWithASystemWaveOfOneSampleHasNoEchoes) {
  ScannerDevice scanner = skewedScanner(3);
  scanner.size_sys = 1;
  scanner.afterpulse_width = 1U << 31U;
  RichardsonLucy<unsigned short, ZeroCrossing> method(scanner, 13U);
  Samples const samples{20,  300, 900, 300, 200, 300, 600, 300, 100,
                        300, 900, 300, 200, 300, 700, 300, 100, 20};
  WavePtr const wave(new WavePoints<unsigned short>(samples.data(), 1, 0.0, 0.0,
                                                    static_cast<int>(samples.size()), 20, scanner));
  EXPECT_EQ(method.apply(samples.data(), wave), 1);
  EXPECT_EQ(wave->size(), 0U);  // the system wave is 0 at its only time and cannot be normalised
}

}  // namespace
}  // namespace FullWaveform
