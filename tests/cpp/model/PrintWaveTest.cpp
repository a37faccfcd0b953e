#include <fullwaveform/model/PrintWave.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/PdfPage.h"
#include "support/TemporaryDirectory.h"

namespace FullWaveform {
namespace {

using Testing::DrawnPage;
using Testing::firstCurve;
using Testing::PdfPage;
using Messages = std::vector<std::string>;

class PrintWave : public ::testing::Test {
 protected:
  Testing::TemporaryDirectory directory;
  std::filesystem::path file = directory.path() / "wave.pdf";
  Testing::ConsoleCapture console;
};

TEST_F(PrintWave, PlotsSamplesAgainstTheirIndex) {
  std::vector<unsigned short> const samples{5, 900, 20, 1500, 10, 5, 5, 5, 5, 5, 5,
                                            5, 5,   5,  5,    5,  5, 5, 5, 5, 5};
  printWave(samples.data(), 21U, file, false);
  PdfPage const page(file);
  EXPECT_TRUE(page.shows("Wave"));
  EXPECT_TRUE(page.shows("time [s]"));
  EXPECT_TRUE(page.shows("Amplitude dB"));
  // Indices 0 to 20 with at most ten intervals, counts 5 to 1500 with at most five.
  EXPECT_TRUE(page.shows("18"));
  EXPECT_TRUE(page.shows("20"));
  EXPECT_FALSE(page.shows("22"));
  EXPECT_TRUE(page.shows("1500"));
  EXPECT_FALSE(page.shows("2000"));
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 500);
  EXPECT_TRUE(console.messages().empty());
}

TEST_F(PrintWave, PlotsComputedValues) {
  std::vector<double> const values{-2.0, 3.5, 0.25};
  printWave(values.data(), 3U, file, false);
  EXPECT_TRUE(PdfPage(file).shows("-2"));
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 500);
}

TEST_F(PrintWave, CountLimitsWhatIsRead) {
  std::vector<double> const values{1.0, 2.0, 90000.0};
  printWave(values.data(), 2U, file, false);
  EXPECT_TRUE(PdfPage(file).shows("1.5"));
  EXPECT_FALSE(PdfPage(file).shows("80000"));
}

TEST_F(PrintWave, WithoutValuesThePageHasNoLine) {
  unsigned short const sample = 7;
  printWave(&sample, 0U, file, false);
  EXPECT_EQ(console.messages(), Messages{"VectorToPDF::addVector: broken data"});
  EXPECT_TRUE(PdfPage(file).shows("Amplitude dB"));
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(PrintWave, NullIsTreatedAsNoValues) {
  printWave<double>(nullptr, 5U, file, true);
  printWave<unsigned short>(nullptr, 5U, file, true);
  EXPECT_EQ(console.messages(),
            (Messages{"VectorToPDF::addVector: broken data", "VectorToPDF::addVector: broken data"}));
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(PrintWave, OneSampleIsADot) {
  unsigned short const sample = 180;
  printWave(&sample, 1U, file, false);
  PdfPage const page(file);
  // The axis extends by a tenth of 180 to both sides.
  EXPECT_TRUE(page.shows("170"));
  EXPECT_TRUE(page.shows("180"));
  EXPECT_TRUE(page.shows("190"));
  DrawnPage::Box const box = DrawnPage(file).boxOf(firstCurve);
  EXPECT_GT(box.count, 10);
  EXPECT_LT(box.right - box.left, 12);
}

TEST_F(PrintWave, FlagMarksEveryValue) {
  std::vector<unsigned short> const samples(30, 50);
  printWave(samples.data(), 30U, file, false);
  int const plain = DrawnPage(file).boxOf(firstCurve).count;
  printWave(samples.data(), 30U, file, true);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, plain + 30 * 10);
}

TEST_F(PrintWave, PageIs180By110Millimetres) {
  unsigned short const sample = 7;
  printWave(&sample, 1U, file, true);
  // 180 mm by 110 mm in points.
  EXPECT_TRUE(PdfPage(file).information().find("510.236 x 311.811 pts") != std::string::npos);
}

TEST_F(PrintWave, NonFiniteValuesLeaveAGap) {
  double const infinity = std::numeric_limits<double>::infinity();
  std::vector<double> const values{1.0, 2.0, infinity, std::numeric_limits<double>::quiet_NaN(), 3.0, 4.0};
  printWave(values.data(), 6U, file, false);
  EXPECT_GT(DrawnPage(file).gapsOf(firstCurve), 300);
}

TEST_F(PrintWave, WriteErrorsAreIgnored) {
  unsigned short const sample = 7;
  EXPECT_NO_THROW(printWave(&sample, 1U, directory.path() / "missing" / "wave.pdf", false));
  EXPECT_TRUE(console.messages().empty());
}

}  // namespace
}  // namespace FullWaveform
