#include <fullwaveform/host/VectorToPDF.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/PdfPage.h"
#include "support/TemporaryDirectory.h"
#include "support/Threads.h"

namespace OrvikPDF {
namespace {

using FullWaveform::Testing::ConsoleCapture;
using FullWaveform::Testing::contentOf;
using FullWaveform::Testing::DrawnPage;
using FullWaveform::Testing::firstCurve;
using FullWaveform::Testing::PdfPage;
using FullWaveform::Testing::TemporaryDirectory;

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

VectorToPDF::Range rangeOf(double low, double high) {
  return VectorToPDF::Range(new Kestra::DataRange<double>(low, high));
}

class VectorToPDFTest : public ::testing::Test {
 protected:
  [[nodiscard]] VectorToPDF plotter(bool flag = false) const {
    return {file.string(), flag, "Echo strength", {"range [m]", "counts"}, {}, {10, 5}};
  }
  void expectWritten(VectorToPDF const& plot, std::string const& pages = "1") const {
    EXPECT_EQ(plot.write2Pdf(false), "");
    std::string const bytes = contentOf(file);
    EXPECT_EQ(bytes.substr(0, 5), "%PDF-");
    EXPECT_NE(bytes.rfind("%%EOF"), std::string::npos);
    EXPECT_NE(PdfPage(file).information().find("Pages:           " + pages + "\n"), std::string::npos);
  }
  [[nodiscard]] bool shows(std::string const& words) const { return PdfPage(file).shows(words); }

  TemporaryDirectory directory;
  std::filesystem::path file = directory.path() / "plot.pdf";
};

TEST_F(VectorToPDFTest, ShowsTitleLabelsAndTicks) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, 2, 3}, {10, 40, 20, 30});
  expectWritten(plot);
  EXPECT_TRUE(shows("Echo strength"));
  EXPECT_TRUE(shows("range [m]"));
  EXPECT_TRUE(shows("counts"));
  EXPECT_TRUE(shows("2.5"));
  EXPECT_TRUE(shows("40"));
  EXPECT_NE(PdfPage(file).information().find("Title:           Echo strength\n"), std::string::npos);
  EXPECT_NE(PdfPage(file).information().find("510.236 x 311.811 pts"), std::string::npos);
}

TEST_F(VectorToPDFTest, IsAVectorDrawing) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1});
  expectWritten(plot);
  EXPECT_EQ(contentOf(file).find("/Subtype /Image"), std::string::npos);
}

TEST_F(VectorToPDFTest, ConstantSeriesIsAHorizontalLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 5, 10}, {3, 3, 3});
  expectWritten(plot);
  DrawnPage::Box const box = DrawnPage(file).boxOf(firstCurve);
  EXPECT_LE(box.bottom - box.top, 4);
  // At 144 dots per inch the frame is nearly as wide as the page, 1020 dots.
  EXPECT_GT(box.right - box.left, 850);
}

TEST_F(VectorToPDFTest, GivenRangesSetTheAxes) {
  VectorToPDF plot(file.string(), false, "", {"", ""}, {rangeOf(0, 10), {}}, {10, 5});
  plot.addVector({-10, 2, 3, 20}, {50, 50, 50, 50});
  plot.setYRange(rangeOf(-3000, 3000));
  expectWritten(plot);
  EXPECT_TRUE(shows("10"));
  EXPECT_TRUE(shows("-2000"));
  EXPECT_FALSE(shows("12"));
  // Only the step from 2 to 3 is inside: a tenth of the frame, which is about 920 dots wide.
  DrawnPage::Box const box = DrawnPage(file).boxOf(firstCurve);
  EXPECT_NEAR(box.right - box.left, 92, 15);
}

TEST_F(VectorToPDFTest, NameIsShownWithALegendLine) {
  auto const topOfCurve = [&](std::string const& name) {
    VectorToPDF plot = plotter();
    plot.addVector({0, 1}, {0, 0}, name);
    expectWritten(plot);
    return DrawnPage(file).boxOf(firstCurve).top;
  };
  EXPECT_GT(topOfCurve(""), 200);  // the line alone, in the middle of the frame
  EXPECT_LT(topOfCurve("curve"), 100);
  EXPECT_TRUE(shows("curve"));
}

TEST_F(VectorToPDFTest, EverySeriesHasAPage) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1}, "samples");
  plot.addVector({40, 50}, {300, 400}, "fitted");
  expectWritten(plot, "2");
  EXPECT_TRUE(shows("samples"));
  EXPECT_TRUE(shows("fitted"));
  EXPECT_TRUE(shows("0.8"));
  EXPECT_TRUE(shows("350"));
}

TEST_F(VectorToPDFTest, FlagMarksTheValues) {
  auto const drawn = [&](bool flag) {
    VectorToPDF plot = plotter(flag);
    plot.addVector({0, 1, 2, 3, 4, 5}, {1, 1, 1, 1, 1, 1});
    expectWritten(plot);
    return DrawnPage(file).boxOf(firstCurve);
  };
  DrawnPage::Box const plain = drawn(false);
  DrawnPage::Box const marked = drawn(true);
  EXPECT_GT(marked.bottom - marked.top, plain.bottom - plain.top + 2);
  EXPECT_GT(marked.count, plain.count + 6 * 8);
}

TEST_F(VectorToPDFTest, WithoutSeriesThePageHasTitleAndAxes) {
  expectWritten(plotter());
  EXPECT_TRUE(shows("Echo strength"));
  EXPECT_TRUE(shows("range [m]"));
  EXPECT_TRUE(shows("0.5"));
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, BrokenDataIsReportedAndNotAdded) {
  ConsoleCapture const console;
  VectorToPDF plot = plotter();
  plot.addVector({}, {});
  plot.addVector({1, 2}, {1});
  EXPECT_EQ(console.messages(), (std::vector<std::string>{"VectorToPDF::addVector: broken data",
                                                          "VectorToPDF::addVector: broken data"}));
  expectWritten(plot);
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, NonFiniteValuesInterruptTheLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, 2, 3, 4, 5}, {1, 1, NaN, infinity, 1, 1});
  expectWritten(plot);
  // Three fifths of the line are missing.
  DrawnPage const page(file);
  DrawnPage::Box const box = page.boxOf(firstCurve);
  EXPECT_NEAR(page.gapsOf(firstCurve), 0.6 * (box.right - box.left), 5);
}

TEST_F(VectorToPDFTest, ValueBetweenNonFiniteOnesIsADot) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, 2}, {NaN, 1, NaN});
  expectWritten(plot);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 10);
}

TEST_F(VectorToPDFTest, OnlyNonFiniteValuesGiveAPageWithoutLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, NaN}, {NaN, -infinity, 1});
  plot.setYRange(rangeOf(NaN, infinity));
  expectWritten(plot);
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, DegenerateAndHugeRangesGiveAPage) {
  VectorToPDF plot(file.string(), true, "", {"", ""}, {rangeOf(9, 5), {}}, {10, 5});
  plot.addVector({7}, {7});
  for (auto const& range : {rangeOf(7, 7), rangeOf(-1.7e308, 1.7e308), rangeOf(-infinity, infinity)}) {
    plot.setYRange(range);
    expectWritten(plot);
    EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 10);
  }
  plot.setYRange(rangeOf(1e-320, 2e-320));
  expectWritten(plot);
}

TEST_F(VectorToPDFTest, ReplacesControlCharactersAndInvalidUtf8) {
  VectorToPDF plot(file.string(), false, "shot \xc3\xa4 17", {"first\nsecond", "\xed\xa0\x80"}, {}, {10, 5});
  plot.addVector({0, 1}, {0, 1}, "bad \xf5 \xc3\xa4");
  expectWritten(plot);
  EXPECT_TRUE(shows("shot \xc3\xa4 17"));
  EXPECT_TRUE(shows("first second"));
  EXPECT_TRUE(shows("???"));
  EXPECT_TRUE(shows("bad ? ??"));
  VectorToPDF const invalidTitle(file.string(), false, "shot \xff 17", {std::string(3000, 'x'), ""}, {},
                                 {10, 5});
  expectWritten(invalidTitle);
  EXPECT_TRUE(shows("shot ? 17"));
}

TEST_F(VectorToPDFTest, ReplacesAnExistingFile) {
  VectorToPDF plot = plotter();
  expectWritten(plot);
  plot.addVector({0, 1}, {0, 1});
  expectWritten(plot);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 500);
}

TEST_F(VectorToPDFTest, UnwritableFileReturnsTheReason) {
  std::filesystem::path const missing = directory.path() / "missing" / "plot.pdf";
  VectorToPDF const plot(missing.string(), false, "", {"", ""}, {}, {10, 5});
  EXPECT_EQ(plot.write2Pdf(false),
            "VectorToPDF::write2Pdf: cannot write " + missing.string() + ": No such file or directory");
  VectorToPDF const onDirectory(directory.path().string(), false, "", {"", ""}, {}, {10, 5});
  EXPECT_NE(onDirectory.write2Pdf(false), "");
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(VectorToPDFTest, FullDiskReturnsTheReason) {
  VectorToPDF const plot("/dev/full", false, "", {"", ""}, {}, {10, 5});
  EXPECT_EQ(plot.write2Pdf(false), "VectorToPDF::write2Pdf: cannot write /dev/full: No space left on device");
}

TEST_F(VectorToPDFTest, ThreadsDrawConcurrently) {
  FullWaveform::Testing::onThreads(4, [&](int number) {
    std::string const name = (directory.path() / (std::to_string(number) + ".pdf")).string();
    VectorToPDF plot(name, true, "thread", {"x", "y"}, {}, {10, 5});
    plot.addVector({0, 1, 2}, {0, 1, 0}, "curve");
    EXPECT_EQ(plot.write2Pdf(false), "");
    EXPECT_EQ(contentOf(name).substr(0, 5), "%PDF-");
  });
}

}  // namespace
}  // namespace OrvikPDF
