// What the fuzz targets ended with, each as a test of its own.
#include <stdexcept>

#include <fullwaveform/deconvolution/RichardsonLucy.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <gtest/gtest.h>

#include "support/SkewedScanner.h"

namespace FullWaveform {
namespace {

using namespace Testing;

TEST(FuzzFindings, ASystemWaveOfOneSampleHasNoTransformForNoSample) {
  ScannerDevice scanner = skewedScanner(1);
  scanner.size_sys = 1;
  EXPECT_THROW((RichardsonLucy<unsigned short, ZeroCrossing>(scanner, 0U)), std::length_error);
}

}  // namespace
}  // namespace FullWaveform
