#include <complex>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/VectorToPDF.h>
#include <fullwaveform/model/PrintWave.h>
#include <fullwaveform/scanner/SystemWave.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"

namespace FullWaveform {
namespace {

using Plotter = OrvikPDF::VectorToPDF;
using Values = std::vector<double>;
using Labels = std::pair<std::string, std::string>;
using Bounds = std::pair<double, double>;
using Integers = std::pair<unsigned int, unsigned int>;

TEST(PrintWaveCalls, SamplesSetTheRangeOfY) {
  std::vector<unsigned short> const samples{20, 700, 5, 30};
  printWave(samples.data(), 4U, "directory/wave.pdf", true);
  Plotter::Calls const& calls = Plotter::calls();
  EXPECT_EQ(calls.file, "directory/wave.pdf");
  EXPECT_TRUE(calls.flag);
  EXPECT_EQ(calls.title, "Wave");
  EXPECT_EQ(calls.axisLabels, (Labels{"time [s]", "Amplitude dB"}));
  EXPECT_FALSE(calls.xRange);
  EXPECT_FALSE(calls.yRangeOfConstructor);
  EXPECT_EQ(calls.yRange, (Bounds{5.0, 700.0}));
  EXPECT_EQ(calls.integers, (Integers{10, 5}));
  EXPECT_EQ(calls.x, (std::vector<Values>{{0, 1, 2, 3}}));
  EXPECT_EQ(calls.y, (std::vector<Values>{{20, 700, 5, 30}}));
  EXPECT_EQ(calls.written, std::vector<bool>{false});
}

TEST(PrintWaveCalls, ComputedSeriesSetNoRange) {
  Values const values{0.5, -2.0};
  printWave(values.data(), 2U, "wave.pdf", false);
  Plotter::Calls const& calls = Plotter::calls();
  EXPECT_FALSE(calls.flag);
  EXPECT_FALSE(calls.yRange);
  EXPECT_EQ(calls.x, (std::vector<Values>{{0, 1}}));
  EXPECT_EQ(calls.y, (std::vector<Values>{values}));
  EXPECT_EQ(calls.written, std::vector<bool>{false});
}

TEST(PrintWaveCalls, OneSampleHasARangeOfEqualEnds) {
  unsigned short const sample = 180;
  printWave(&sample, 1U, "wave.pdf", false);
  EXPECT_EQ(Plotter::calls().yRange, (Bounds{180.0, 180.0}));
  EXPECT_EQ(Plotter::calls().x, (std::vector<Values>{{0}}));
}

TEST(PrintWaveCalls, WithoutSamplesAPlotWithoutSeriesIsWritten) {
  Testing::ConsoleCapture const console;
  printWave<unsigned short>(nullptr, 3U, "wave.pdf", true);
  Plotter::Calls const& calls = Plotter::calls();
  EXPECT_EQ(calls.file, "wave.pdf");
  EXPECT_TRUE(calls.y.empty());
  EXPECT_FALSE(calls.yRange);
  EXPECT_EQ(calls.written, std::vector<bool>{false});
  EXPECT_EQ(console.messages(), std::vector<std::string>{"VectorToPDF::addVector: broken data"});
}

TEST(SystemWaveCalls, PlotsTheNormalisedWaveOverNanoseconds) {
  using Complex = std::complex<double>;
  auto const table = [](Complex value) {
    return Holdex::makeStrong<Holdex::Chunk<Complex>>(std::vector<Complex>{value});
  };
  // Halves every 2 ns, from 8: normalised 1, 1/2, 1/4.
  auto const wave =
      createNormalizedSysWave(table(8.0), table(-std::numbers::ln2 / 2e-9), 2e-9, 3U, "directory");
  ASSERT_TRUE(wave);
  Plotter::Calls const& calls = Plotter::calls();
  EXPECT_EQ(calls.file, "directory/SysWave.pdf");
  EXPECT_EQ(calls.axisLabels, (Labels{"time [ns]", "Normalized Amplitude"}));
  EXPECT_EQ(calls.names, std::vector<std::string>{"Wave"});
  ASSERT_EQ(calls.x.size(), 1U);
  ASSERT_EQ(calls.x[0].size(), 3U);
  ASSERT_EQ(calls.y[0].size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NEAR(calls.x[0][i], (Values{0.0, 2.0, 4.0})[i], 1e-12);
    EXPECT_NEAR(calls.y[0][i], (Values{1.0, 0.5, 0.25})[i], 1e-12);
  }
  ASSERT_TRUE(calls.xRange && calls.yRange);
  EXPECT_NEAR(calls.xRange->first, 0.0, 1e-12);
  EXPECT_NEAR(calls.xRange->second, 4.0, 1e-12);
  EXPECT_NEAR(calls.yRange->first, 0.25, 1e-12);
  EXPECT_NEAR(calls.yRange->second, 1.0, 1e-12);
  EXPECT_EQ(calls.written.size(), 1U);
}

}  // namespace
}  // namespace FullWaveform
