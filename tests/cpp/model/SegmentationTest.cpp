#include <fullwaveform/model/Segmentation.h>

#include <cstdint>
#include <map>
#include <span>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "SegmentWaveforms.h"
#include "support/TestWaveforms.h"

namespace FullWaveform {
namespace {

using Testing::Samples;
using StartEnd = std::map<std::uint32_t, std::uint32_t>;

Segmentation segment(Samples const& samples, unsigned short noise = 10) {
  return segmentSignal(std::span<unsigned short const>(samples), noise);
}

StartEnd startEndOf(Samples const& samples, unsigned short noise = 10) {
  return segment(samples, noise).startEnd;
}

TEST(Segmentation, WorkedExample) {
  Segmentation const found = segment({5, 50, 60, 5, 5});
  EXPECT_EQ(found.startEnd, (StartEnd{{0, 3}}));
  EXPECT_EQ(found.max, 60);
  EXPECT_EQ(found.idxOfMax, 2U);
}

TEST(Segmentation, AWaveformAboveTheNoiseIsOneSegmentFromOne) {
  EXPECT_EQ(startEndOf({50, 50, 50, 50, 50, 50}), (StartEnd{{1, 4}}));
}

TEST(Segmentation, AWaveformNotAboveTheNoiseHasNone) {
  EXPECT_EQ(startEndOf(Samples(20, 9)), StartEnd{});
  EXPECT_EQ(startEndOf(Samples(20, 10)), StartEnd{});
}

TEST(Segmentation, EveryRunAboveTheNoiseIsASegment) {
  EXPECT_EQ(startEndOf({5, 5, 50, 5, 5, 50, 50, 5, 5}), (StartEnd{{1, 3}, {4, 7}}));
}

TEST(Segmentation, ASampleEqualToTheNoiseNeitherStartsNorEndsASegment) {
  EXPECT_EQ(startEndOf({5, 10, 10, 50, 10, 10, 5, 5}), (StartEnd{{2, 6}}));
  EXPECT_EQ(startEndOf({5, 50, 10, 50, 10, 5, 5}), (StartEnd{{0, 5}}));
}

TEST(Segmentation, AFirstSampleEqualToTheNoiseIsNotInASegment) {
  EXPECT_EQ(startEndOf({10, 10, 5, 5, 5}), StartEnd{});
  EXPECT_EQ(startEndOf({11, 10, 5, 5, 5}), (StartEnd{{1, 2}}));
}

TEST(Segmentation, AnOpenSegmentEndsAtTheSecondToLastSample) {
  EXPECT_EQ(startEndOf({5, 5, 50, 50, 50}), (StartEnd{{1, 3}}));
  EXPECT_EQ(startEndOf({5, 5, 5, 50, 50}), (StartEnd{{2, 3}}));
}

TEST(Segmentation, LastSampleIsNeverExamined) {
  EXPECT_EQ(startEndOf({5, 5, 5, 5, 50}), StartEnd{});
  EXPECT_EQ(startEndOf({5, 50, 50, 50, 5}), (StartEnd{{0, 3}}));
}

// The first segment is 1 to 1; a second one, opened by the sample at 2, starts at 1 too.
TEST(Segmentation, ASegmentWithTheSameStartReplacesTheEnd) {
  EXPECT_EQ(startEndOf({50, 5, 50, 5, 5}), (StartEnd{{1, 3}}));
}

TEST(Segmentation, SegmentsOfOneOrTwoSamplesWrap) {
  EXPECT_EQ(startEndOf({}), StartEnd{});
  EXPECT_EQ(startEndOf({5}), StartEnd{});
  EXPECT_EQ(startEndOf({50}), (StartEnd{{1, 4294967295U}}));
  EXPECT_EQ(startEndOf({5, 50}), StartEnd{});
  EXPECT_EQ(startEndOf({50, 5}), (StartEnd{{1, 0}}));
}

TEST(Segmentation, ReturnsTheFirstOfEqualMaxima) {
  Segmentation const found = segment({5, 5, 60, 5, 60, 60, 5});
  EXPECT_EQ(found.max, 60);
  EXPECT_EQ(found.idxOfMax, 2U);
}

TEST(Segmentation, TheMaximumExcludesFirstAndLastSample) {
  Segmentation const found = segment({90, 5, 60, 5, 95});
  EXPECT_EQ(found.max, 60);
  EXPECT_EQ(found.idxOfMax, 2U);
}

TEST(Segmentation, AWaveformOfZerosHasNoMaximum) {
  Segmentation const found = segment(Samples(10, 0), 0);
  EXPECT_EQ(found.max, 0);
  EXPECT_EQ(found.idxOfMax, 0U);
  EXPECT_EQ(found.startEnd, StartEnd{});
}

TEST(Segmentation, FullScaleSamplesAreCompared) {
  EXPECT_EQ(startEndOf({0, 65535, 0, 0}, 65534), (StartEnd{{0, 2}}));
  EXPECT_EQ(startEndOf({0, 65535, 0, 0}, 65535), StartEnd{});
}

TEST(Segmentation, FindsTwoSegmentsAtEveryPlaceOfALongWaveform) {
  // Above 32767, where signed and unsigned comparisons differ.
  constexpr unsigned short noise = 40000;
  for (std::uint32_t first = 1; first < 30; ++first) {
    for (std::uint32_t last = first; last < 30; ++last) {
      Samples samples(40, noise - 1);
      for (std::uint32_t i = first; i <= last; ++i) {
        samples[i] = noise + 1;
      }
      samples[last] = 65535;
      samples[last + 3] = 65535;
      Testing::withGuardedCopies(samples, [&](unsigned short const* start) {
        Segmentation const found = segmentSignal(std::span(start, samples.size()), noise);
        EXPECT_EQ(found.startEnd, (StartEnd{{first - 1, last + 1}, {last + 2, last + 4}}))
            << first << " to " << last;
        EXPECT_EQ(found.idxOfMax, last);
        EXPECT_EQ(found.max, 65535);
      });
    }
  }
}

TEST(Segmentation, AgreesWithPythonForAllShortWaveforms) {
  std::istringstream words(Testing::segmentWaveforms);
  int waveforms = 0;
  for (std::string line; words >> line; ++waveforms) {
    auto const bar = line.find('|');
    Samples samples;
    for (char const letter : line.substr(0, bar)) {
      samples.push_back(letter == 'b' ? 5 : letter == 'e' ? 10 : 50);
    }
    std::size_t const length = samples.size();
    Testing::withGuardedCopies(samples, [&](unsigned short const* first) {
      Segmentation const found = segmentSignal(std::span(first, length), 10);
      std::ostringstream text;
      char const* separator = "|";
      for (auto const& [start, end] : found.startEnd) {
        text << separator << start << '>' << end;
        separator = ",";
      }
      text << (found.startEnd.empty() ? "||" : "|") << found.idxOfMax;
      EXPECT_EQ(text.str(), line.substr(bar)) << line;
      EXPECT_EQ(found.max, length < 3 ? 0 : samples[found.idxOfMax]) << line;
    });
  }
  EXPECT_EQ(waveforms, 1 + 3 + 9 + 27 + 81 + 243);
}

}  // namespace
}  // namespace FullWaveform
