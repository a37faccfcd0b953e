#include <fullwaveform/scanner/SystemWave.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include <fullwaveform/host/PointerID.h>
#include <gtest/gtest.h>

#include "support/ConsoleCapture.h"
#include "support/PdfPage.h"
#include "support/SkewedScanner.h"
#include "support/TemporaryDirectory.h"

namespace FullWaveform {
namespace {

using Complex = std::complex<double>;
using Messages = std::vector<std::string>;
using Testing::complexTable;

double const halving = -std::numbers::ln2;
double const quarterTurn = 0.5 * std::numbers::pi;

void expectNear(std::vector<double> const& values, std::vector<double> const& expected) {
  ASSERT_EQ(values.size(), expected.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(values[i], expected[i], 1e-14) << "value " << i;
  }
}

TEST(CreateNormalizedSysWave, MaximumIsOne) {
  Testing::ConsoleCapture const console;
  std::size_t const before = Holdex::ChunkBase::memoryTotal();
  auto const a = complexTable({4.0, Complex(1.0, 1.0)});
  auto const b = complexTable({halving / 1e-9, Complex(0.0, quarterTurn / 1e-9)});
  std::size_t const tables = Holdex::ChunkBase::memoryTotal();
  EXPECT_EQ(tables - before, 64U);
  auto const wave = createNormalizedSysWave(a, b, 1e-9, 4U, {});
  ASSERT_TRUE(wave);
  EXPECT_EQ(Holdex::ChunkBase::memoryTotal() - tables, 32U);
  expectNear({wave->begin(), wave->end()}, {1.0, 0.2, 0.0, 0.3});
  EXPECT_TRUE(console.messages().empty());
}

TEST(CreateNormalizedSysWave, LengthOneIsTheSumOfTheCoefficients) {
  auto const wave = createNormalizedSysWave(complexTable({Complex(0.5, 3.0), Complex(1.5, -1.0)}),
                                            complexTable({-1e8, -2e8}), 1e-9, 1U, {});
  ASSERT_TRUE(wave);
  ASSERT_EQ(wave->size(), 1U);
  EXPECT_EQ((*wave)[0], 1.0);
}

void expectRejected(ScannerDevice::ComplexTable const& a, ScannerDevice::ComplexTable const& b, double dt,
                    unsigned int length, std::string const& message) {
  Testing::ConsoleCapture const console;
  EXPECT_FALSE(createNormalizedSysWave(a, b, dt, length, {}));
  EXPECT_EQ(console.messages(), (Messages{message, "Could not create system wave!"}));
}

TEST(CreateNormalizedSysWave, NonPositiveOrNaNStepIsRejected) {
  auto const table = complexTable({1.0});
  expectRejected(table, table, 0.0, 12, "dt <= 0");
  expectRejected(table, table, -1e-9, 12, "dt <= 0");
  expectRejected(table, table, std::numeric_limits<double>::quiet_NaN(), 12, "dt <= 0");
  // The step is checked first.
  expectRejected({}, {}, 0.0, 12, "dt <= 0");
}

TEST(CreateNormalizedSysWave, MissingTablesAreRejected) {
  auto const table = complexTable({1.0});
  expectRejected({}, table, 1e-9, 12, "No expsum chunk");
  expectRejected(table, {}, 1e-9, 12, "No expsum chunk");
}

TEST(CreateNormalizedSysWave, EmptyTablesOrDifferentLengthsAreRejected) {
  expectRejected(complexTable({1.0, 2.0}), complexTable({1.0}), 1e-9, 12,
                 "Expsum chunks of different lengths: 2 coefficients, 1 exponents");
  expectRejected(complexTable({}), complexTable({1.0}), 1e-9, 12,
                 "Expsum chunks of different lengths: 0 coefficients, 1 exponents");
  expectRejected(complexTable({}), complexTable({}), 1e-9, 12, "Expsum chunks without values");
}

TEST(CreateNormalizedSysWave, LengthZeroIsRejected) {
  expectRejected(complexTable({1.0}), complexTable({-1e8}), 1e-9, 0, "System wave of length 0");
}

TEST(CreateNormalizedSysWave, EveryReturnedPointerHasANewIdentifier) {
  auto const a = complexTable({1.0});
  auto const b = complexTable({-1e8});
  std::uint64_t const before = Holdex::PointerID::next();
  auto const first = createNormalizedSysWave(a, b, 1e-9, 12, {});
  auto const second = createNormalizedSysWave(a, b, 1e-9, 12, {});
  EXPECT_GT(first.identifier(), before);
  EXPECT_GT(second.identifier(), first.identifier());
  EXPECT_LT(second.identifier(), Holdex::PointerID::next());
  EXPECT_NE(first->identity(), second->identity());
}

TEST(CreateNormalizedSysWave, PlotsTheWave) {
  Testing::TemporaryDirectory const directory;
  ScannerDevice const scanner = Testing::skewedScanner();
  ASSERT_TRUE(createNormalizedSysWave(scanner.expsum_a, scanner.expsum_b, 0.2e-9, 56U, directory.path()));
  std::filesystem::path const file = directory.path() / "SysWave.pdf";
  ASSERT_TRUE(std::filesystem::exists(file));
  Testing::PdfPage const page(file);
  EXPECT_TRUE(page.shows("time [ns]"));
  EXPECT_TRUE(page.shows("Normalized Amplitude"));
  EXPECT_TRUE(page.shows("Wave"));
  // 55 steps of 0.2 ns.
  EXPECT_TRUE(page.shows("10"));
  EXPECT_FALSE(page.shows("12"));
  EXPECT_GT(Testing::DrawnPage(file).boxOf(Testing::firstCurve).count, 500);
}

TEST(CreateNormalizedSysWave, WithoutDirectoryThereIsNoPlot) {
  Testing::TemporaryDirectory const directory;
  std::filesystem::path const previous = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  EXPECT_TRUE(createNormalizedSysWave(complexTable({1.0}), complexTable({-1e8}), 1e-9, 12U, {}));
  std::filesystem::current_path(previous);
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(CreateNormalizedSysWave, UnwritablePlotIsReported) {
  Testing::TemporaryDirectory const directory;
  Testing::ConsoleCapture const console;
  EXPECT_TRUE(createNormalizedSysWave(complexTable({1.0}), complexTable({-1e8}), 1e-9, 12U,
                                      directory.path() / "missing"));
  ASSERT_EQ(console.messages().size(), 1U);
  EXPECT_NE(console.messages()[0].find("cannot write"), std::string::npos);
}

}  // namespace
}  // namespace FullWaveform
