#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <gtest/gtest.h>

#include "support/Blocks.h"
#include "support/TemporaryDirectory.h"
#include "support/TestScanner.h"
#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using namespace Testing;

/// Sixty shots of two channels, with one to three echoes of different amplitude, width and position.
std::vector<Row> manyRows() {
  std::vector<Row> rows;
  for (int i = 0; i < 120; ++i) {
    Samples samples(60, static_cast<unsigned short>(12 + i % 3));
    for (int echo = 0; echo <= i % 3; ++echo) {
      auto const top = static_cast<unsigned short>(60 + 37 * (i % 11) + 90 * echo);
      std::size_t const at = 8 + static_cast<std::size_t>(i % 7) + 15 * static_cast<std::size_t>(echo);
      for (std::size_t distance = 0; distance < 4; ++distance) {
        auto const height = static_cast<unsigned short>(top >> distance);
        samples[at + distance] = std::max(samples[at + distance], height);
        samples[at - distance] = std::max(samples[at - distance], height);
      }
    }
    rows.push_back({samples, i / 2 * 1e-5, static_cast<unsigned char>(i % 2)});
  }
  return rows;
}

class DriverBlocks : public testing::TestWithParam<FWFModus> {};

/// Reports of all waveforms, extracted in blocks of `rowsPerBlock` rows.
std::string textOf(FWFModus modus, std::vector<Row> const& rows, std::size_t rowsPerBlock) {
  TemporaryDirectory const directory;
  Driver driver(modus, scannerOf(), directory.path(), "scan01.rxp", 100U);
  std::string text;
  for (std::size_t first = 0; first < rows.size(); first += rowsPerBlock) {
    auto const begin = rows.begin() + static_cast<std::ptrdiff_t>(first);
    auto const end = begin + static_cast<std::ptrdiff_t>(std::min(rowsPerBlock, rows.size() - first));
    for (auto const& [time, shot] : blockOf({begin, end}).run(driver)) {
      for (WavePtr const& wave : shot.waves) {
        text += std::to_string(time) + wave->print();
      }
    }
  }
  return text;
}

TEST_P(DriverBlocks, ResultIsEqualForAllBlockSizes) {
  std::vector<Row> const rows = manyRows();
  std::string const expected = textOf(GetParam(), rows, rows.size());
  EXPECT_GT(expected.size(), 10000U);
  for (std::size_t const rowsPerBlock : {2U, 6U, 50U}) {
    EXPECT_EQ(textOf(GetParam(), rows, rowsPerBlock), expected) << rowsPerBlock;
  }
}

TEST_P(DriverBlocks, ResultIsEqualForAnyOrderOfShots) {
  std::vector<Row> rows = manyRows();
  std::string const ascending = textOf(GetParam(), rows, rows.size());
  // Reverses the shots; the rows of a shot keep their order.
  for (std::size_t i = 0; i + 2 < rows.size() - i - 2; i += 2) {
    std::swap_ranges(rows.begin() + static_cast<std::ptrdiff_t>(i),
                     rows.begin() + static_cast<std::ptrdiff_t>(i + 2),
                     rows.end() - static_cast<std::ptrdiff_t>(i + 2));
  }
  EXPECT_EQ(textOf(GetParam(), rows, rows.size()), ascending);
}

INSTANTIATE_TEST_SUITE_P(Modes, DriverBlocks,
                         testing::Values(FWFModus::ThreePoint, FWFModus::Decomposition,
                                         FWFModus::Deconvolution, FWFModus::Hybrid));

}  // namespace
}  // namespace FullWaveform
