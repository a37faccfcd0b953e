#include <fullwaveform/host/VectorToPDF.h>

#include <filesystem>
#include <limits>
#include <string>
#include <utility>
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
using FullWaveform::Testing::secondCurve;
using FullWaveform::Testing::TemporaryDirectory;
using Values = std::vector<double>;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

VectorToPDF::Range rangeOf(double low, double high) {
  return VectorToPDF::Range(new Kestra::DataRange<double>(low, high));
}

class VectorToPDFTest : public ::testing::Test {
 protected:
  [[nodiscard]] VectorToPDF plotter(bool flag = false) const {
    return {file.string(), flag, "Echo strength", {"range [m]", "counts"}, {}, {10, 5}};
  }
  void expectWritten(VectorToPDF const& plot, bool fullPage = false) const {
    EXPECT_EQ(plot.write2Pdf(fullPage), "");
    std::string const bytes = contentOf(file);
    EXPECT_EQ(bytes.substr(0, 5), "%PDF-");
    EXPECT_NE(bytes.rfind("%%EOF"), std::string::npos);
    EXPECT_NE(PdfPage(file).information().find("Pages:           1\n"), std::string::npos);
  }
  [[nodiscard]] bool shows(std::string const& words) const { return PdfPage(file).shows(words); }

  TemporaryDirectory directory;
  std::filesystem::path file = directory.path() / "plot.pdf";
};

TEST_F(VectorToPDFTest, HasTitleLabelsAndTicks) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, 2, 3}, {10, 40, 20, 30});
  expectWritten(plot);
  EXPECT_TRUE(shows("Echo strength"));
  EXPECT_TRUE(shows("range [m]"));
  EXPECT_TRUE(shows("counts"));
  EXPECT_TRUE(shows("2.5"));
  EXPECT_TRUE(shows("40"));
  EXPECT_NE(PdfPage(file).information().find("Title:           Echo strength\n"), std::string::npos);
}

TEST_F(VectorToPDFTest, IsAVectorDrawing) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1});
  expectWritten(plot);
  EXPECT_EQ(contentOf(file).find("/Subtype /Image"), std::string::npos);
}

TEST_F(VectorToPDFTest, AFlatLineIsAFlatLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 5, 10}, {3, 3, 3});
  expectWritten(plot);
  DrawnPage::Box const box = DrawnPage(file).boxOf(firstCurve);
  EXPECT_LE(box.bottom - box.top, 4);
  // At 144 dots per inch the frame is nearly as wide as the page, 1020 dots.
  EXPECT_GT(box.right - box.left, 850);
}

TEST_F(VectorToPDFTest, ALineStaysInTheRangesGiven) {
  VectorToPDF plot(file.string(), false, "", {"", ""}, {rangeOf(0, 10), rangeOf(0, 100)}, {10, 5});
  plot.addVector({-10, 20}, {50, 50});
  expectWritten(plot);
  EXPECT_TRUE(shows("10"));
  EXPECT_TRUE(shows("100"));
  EXPECT_FALSE(shows("15"));
  DrawnPage::Box const box = DrawnPage(file).boxOf(firstCurve);
  EXPECT_GT(box.left, 40);
  EXPECT_LT(box.right, 1020 - 20);
}

TEST_F(VectorToPDFTest, RangesCanBeSetLater) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1});
  plot.setXRange(rangeOf(0, 700));
  plot.setYRange(rangeOf(-3000, 3000));
  expectWritten(plot);
  EXPECT_TRUE(shows("700"));
  EXPECT_TRUE(shows("-2000"));
  plot.setXRange({});
  plot.setYRange({});
  expectWritten(plot);
  EXPECT_FALSE(shows("700"));
  EXPECT_FALSE(shows("2000"));
}

TEST_F(VectorToPDFTest, TheRangeOfAllSeriesCounts) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1});
  plot.addVector({40, 50}, {300, 400});
  expectWritten(plot);
  EXPECT_TRUE(shows("50"));
  EXPECT_TRUE(shows("400"));
}

TEST_F(VectorToPDFTest, SeveralSeriesHaveTheirColoursAndALegend) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1}, {0, 1}, "raw samples");
  plot.addVector({0, 1}, {1, 0}, "fitted");
  expectWritten(plot);
  EXPECT_TRUE(shows("raw samples"));
  EXPECT_TRUE(shows("fitted"));
  DrawnPage const page(file);
  EXPECT_GT(page.boxOf(firstCurve).count, 500);
  EXPECT_GT(page.boxOf(secondCurve).count, 500);
}

TEST_F(VectorToPDFTest, SeriesWithoutNamesAreNumbered) {
  VectorToPDF plot(file.string(), false, "", {"", ""}, {rangeOf(10, 20), rangeOf(10, 20)}, {10, 5});
  plot.addVector({10, 11}, {10, 11});
  plot.addVector({10, 11}, {11, 10}, "named");
  expectWritten(plot);
  EXPECT_TRUE(shows("named"));
  EXPECT_EQ(PdfPage(file).text().find_first_not_of(" \n"), PdfPage(file).text().find("1  "));
}

TEST_F(VectorToPDFTest, OneSeriesHasALegendOnlyWithAName) {
  auto const topOfCurve = [&](std::string const& name) {
    VectorToPDF plot = plotter();
    plot.addVector({0, 1}, {0, 0}, name);
    expectWritten(plot);
    return DrawnPage(file).boxOf(firstCurve).top;
  };
  int const without = topOfCurve("");
  // The legend's key stands above the frame, the line in its middle.
  EXPECT_GT(without, 200);
  EXPECT_LT(topOfCurve("curve"), 100);
}

TEST_F(VectorToPDFTest, ALongLegendTakesSeveralRowsInsideThePage) {
  VectorToPDF plot = plotter();
  for (int i = 0; i < 12; ++i) {
    plot.addVector({0, 1}, {0.0, static_cast<double>(i)}, "a curve of number " + std::to_string(i));
  }
  expectWritten(plot);
  EXPECT_TRUE(shows("a curve of number 11"));
}

TEST_F(VectorToPDFTest, FlagMarksTheValues) {
  auto const inked = [&](bool flag) {
    VectorToPDF plot = plotter(flag);
    plot.addVector({0, 1, 2, 3, 4, 5}, {1, 1, 1, 1, 1, 1});
    expectWritten(plot);
    return DrawnPage(file).boxOf(firstCurve);
  };
  DrawnPage::Box const plain = inked(false);
  DrawnPage::Box const marked = inked(true);
  EXPECT_GT(marked.bottom - marked.top, plain.bottom - plain.top + 2);
  EXPECT_GT(marked.count, plain.count + 6 * 8);
}

TEST_F(VectorToPDFTest, AnEmptyPlotIsAPage) {
  expectWritten(plotter());
  EXPECT_TRUE(shows("Echo strength"));
  EXPECT_TRUE(shows("range [m]"));
  EXPECT_TRUE(shows("0.5"));
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, BrokenDataIsSaidAndLeftOut) {
  ConsoleCapture const console;
  VectorToPDF plot = plotter();
  plot.addVector({}, {});
  plot.addVector({1, 2}, {1});
  EXPECT_EQ(console.messages(), (std::vector<std::string>{"VectorToPDF::addVector: broken data",
                                                          "VectorToPDF::addVector: broken data"}));
  expectWritten(plot);
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, ValuesThatAreNotFiniteInterruptTheLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, 2, 3, 4, 5}, {1, 1, notANumber, infinity, 1, 1});
  expectWritten(plot);
  // Three fifths of the line are missing.
  DrawnPage const page(file);
  DrawnPage::Box const box = page.boxOf(firstCurve);
  EXPECT_NEAR(page.gapsOf(firstCurve), 0.6 * (box.right - box.left), 5);
}

TEST_F(VectorToPDFTest, OnlyValuesThatAreNotFiniteGiveAPageWithoutLine) {
  VectorToPDF plot = plotter();
  plot.addVector({0, 1, notANumber}, {notANumber, -infinity, 1});
  plot.setYRange(rangeOf(notANumber, infinity));
  expectWritten(plot);
  EXPECT_EQ(DrawnPage(file).boxOf(firstCurve).count, 0);
}

TEST_F(VectorToPDFTest, DegenerateAndHugeRangesGiveAPage) {
  VectorToPDF plot = plotter(true);
  plot.addVector({7}, {7});
  plot.setYRange(rangeOf(7, 7));
  expectWritten(plot);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 10);
  plot.setYRange(rangeOf(-1.7e308, 1.7e308));
  plot.setXRange(rangeOf(1e-320, 2e-320));
  expectWritten(plot);
  plot.setYRange(rangeOf(9, 5));
  plot.setXRange(rangeOf(-infinity, infinity));
  expectWritten(plot);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 10);
}

TEST_F(VectorToPDFTest, PowersAndOffsetsStandAtTheAxis) {
  VectorToPDF plot = plotter();
  plot.addVector({259200123.5, 259200123.54}, {0, 5e-9});
  expectWritten(plot);
  EXPECT_TRUE(shows("+ 259200123.5"));
  EXPECT_TRUE(shows("0.04"));
}

TEST_F(VectorToPDFTest, TextsThatAreNotUtf8AreDrawnAllTheSame) {
  VectorToPDF plot(file.string(), false, "shot \xff 17 \xc3\xa4 \xc3", {"first\nsecond", "\xed\xa0\x80"}, {},
                   {10, 5});
  plot.addVector({0, 1}, {0, 1}, "\xf5");
  expectWritten(plot);
  EXPECT_TRUE(shows("shot ? 17 \xc3\xa4 ?"));
  EXPECT_TRUE(shows("first second"));
  EXPECT_TRUE(shows("???"));
}

TEST_F(VectorToPDFTest, ALongTitleStaysOnThePage) {
  VectorToPDF plot(file.string(), false, std::string(300, 'w') + "end", {std::string(300, 'x'), ""}, {},
                   {10, 5});
  plot.addVector({0, 1}, {0, 1});
  expectWritten(plot);
  EXPECT_TRUE(shows("end"));
}

TEST_F(VectorToPDFTest, ManyLabelsDoNotRunIntoEachOther) {
  VectorToPDF plot(file.string(), false, "", {"", ""}, {rangeOf(10000, 60000), rangeOf(0, 1)}, {40, 5});
  plot.addVector({10000, 60000}, {0, 1});
  expectWritten(plot);
  EXPECT_TRUE(shows("20000 "));
  EXPECT_FALSE(shows("1000011"));
}

TEST_F(VectorToPDFTest, TheFigureOrAFullPage) {
  VectorToPDF const plot = plotter();
  expectWritten(plot, false);
  EXPECT_NE(PdfPage(file).information().find("510.236 x 311.811 pts"), std::string::npos);
  expectWritten(plot, true);
  EXPECT_NE(PdfPage(file).information().find("841.89 x 595.276 pts (A4)"), std::string::npos);
}

TEST_F(VectorToPDFTest, AnOlderFileIsReplaced) {
  VectorToPDF plot = plotter();
  expectWritten(plot);
  plot.addVector({0, 1}, {0, 1});
  expectWritten(plot);
  EXPECT_GT(DrawnPage(file).boxOf(firstCurve).count, 500);
}

TEST_F(VectorToPDFTest, AFileThatCannotBeWrittenIsTheTroubleReturned) {
  std::filesystem::path const missing = directory.path() / "missing" / "plot.pdf";
  VectorToPDF const plot(missing.string(), false, "", {"", ""}, {}, {10, 5});
  EXPECT_EQ(plot.write2Pdf(false),
            "VectorToPDF::write2Pdf: cannot write " + missing.string() + ": No such file or directory");
  VectorToPDF const onDirectory(directory.path().string(), false, "", {"", ""}, {}, {10, 5});
  EXPECT_NE(onDirectory.write2Pdf(false), "");
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(VectorToPDFTest, AFullDiskIsTheTroubleReturned) {
  VectorToPDF const plot("/dev/full", false, "", {"", ""}, {}, {10, 5});
  EXPECT_EQ(plot.write2Pdf(false), "VectorToPDF::write2Pdf: cannot write /dev/full: No space left on device");
}

TEST_F(VectorToPDFTest, ThreadsDrawAtTheSameTime) {
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
