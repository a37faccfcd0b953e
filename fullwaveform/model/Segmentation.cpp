#include <fullwaveform/model/Segmentation.h>

#include <algorithm>
#include <cstddef>

#include <fullwaveform/model/SampleSearch.h>

namespace FullWaveform {
namespace {

unsigned short largestOf(std::span<unsigned short const> samples) {
  SampleLanes largest{};
  std::size_t i = 0;
  for (; i + sampleLanes <= samples.size(); i += sampleLanes) {
    largest = largerOf(largest, loadSamples(samples.data() + i));
  }
  unsigned short max = 0;
  for (std::size_t lane = 0; lane < sampleLanes; ++lane) {
    max = std::max<unsigned short>(max, largest[lane]);
  }
  for (; i < samples.size(); ++i) {
    max = std::max(max, samples[i]);
  }
  return max;
}

}  // namespace

Segmentation segmentSignal(std::span<unsigned short const> samples, unsigned short noise) {
  Segmentation found;
  if (samples.empty()) {
    return found;
  }
  std::size_t const count = samples.size();
  std::size_t const innerEnd = std::max<std::size_t>(count - 1, 1);
  found.max = largestOf(samples.subspan(1, innerEnd - 1));
  auto const firstWhere = [&](std::size_t first, auto const& holds) {
    return firstSampleWhere(samples.data(), first, innerEnd, holds);
  };
  if (found.max > 0) {
    found.idxOfMax =
        static_cast<std::uint32_t>(firstWhere(1, [&](auto const& sample) { return sample == found.max; }));
  }
  bool inside = samples.front() > noise;
  std::uint32_t start = 1;  // start of a segment that begins before the scan
  for (std::size_t i = 1; i < innerEnd; ++i) {
    if (inside) {
      i = firstWhere(i, [noise](auto const& sample) { return sample < noise; });
      if (i < innerEnd) {
        found.startEnd.insert_or_assign(found.startEnd.end(), start, static_cast<std::uint32_t>(i));
        inside = false;
      }
    } else {
      i = firstWhere(i, [noise](auto const& sample) { return sample > noise; });
      if (i < innerEnd) {
        start = static_cast<std::uint32_t>(i - 1);
        inside = true;
      }
    }
  }
  if (inside) {
    found.startEnd.insert_or_assign(start, static_cast<std::uint32_t>(count) - 2);
  }
  return found;
}

}  // namespace FullWaveform
