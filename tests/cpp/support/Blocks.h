#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/host/MemArray.h>
#include <fullwaveform/host/MultiArray.h>

#include "support/TestWaveforms.h"

namespace FullWaveform::Testing {

using Driver = PeakDetectionFamily<unsigned short>;
using Array = Kestra::MemArray<2, unsigned short>;

/// One waveform of a block with its attributes.
struct Row {
  Samples samples;
  double shotTime = 0.0;
  unsigned char channelFlag = 0;
  double sblTime = 0.0;
};

/// The arguments of `apply` of a driver.
struct Block {
  Driver::Waveforms waveforms;
  std::vector<unsigned short> counts;
  std::vector<double> shotTimes;
  std::vector<double> sblTimes;
  std::vector<unsigned char> channelFlags;

  ShotMap run(Driver& driver, int noise = 20) const {
    return driver.apply(waveforms, Kestra::MultiArray<1, unsigned short>(counts),
                        Kestra::MultiArray<1, double>(shotTimes), Kestra::MultiArray<1, double>(sblTimes),
                        Kestra::MultiArray<1, unsigned char>(channelFlags), noise, "block");
  }
  ShotMap run(Driver& driver, std::vector<int> const& noises) const {
    return driver.apply(waveforms, Kestra::MultiArray<1, unsigned short>(counts),
                        Kestra::MultiArray<1, double>(shotTimes), Kestra::MultiArray<1, double>(sblTimes),
                        Kestra::MultiArray<1, unsigned char>(channelFlags), std::span(noises), "block");
  }
  void runInParts(Driver& driver, int noise, Driver::PartReceiver const& receive) const {
    std::vector<int> const noises(counts.size(), noise);
    driver.applyInParts(waveforms, Kestra::MultiArray<1, unsigned short>(counts),
                        Kestra::MultiArray<1, double>(shotTimes), Kestra::MultiArray<1, double>(sblTimes),
                        Kestra::MultiArray<1, unsigned char>(channelFlags), std::span(noises), receive);
  }
};

/// Rows as wide as the longest waveform. Samples after the end of a waveform are full scale, so that reading
/// them changes the result.
inline Block blockOf(std::vector<Row> const& rows) {
  Block block;
  std::size_t width = 0;
  for (Row const& row : rows) {
    width = std::max(width, row.samples.size());
  }
  Samples storage;
  for (Row const& row : rows) {
    storage.insert(storage.end(), row.samples.begin(), row.samples.end());
    storage.resize(storage.size() + width - row.samples.size(), 65535);
    block.counts.push_back(static_cast<unsigned short>(row.samples.size()));
    block.shotTimes.push_back(row.shotTime);
    block.sblTimes.push_back(row.sblTime);
    block.channelFlags.push_back(row.channelFlag);
  }
  block.waveforms = Driver::Waveforms(new Array({rows.size(), width}, std::move(storage)));
  return block;
}

/// 20 samples of 5 counts with an echo of `top` counts at index 10 and half of it at 9 and 11.
inline Samples echoOf(unsigned short top) {
  auto const half = static_cast<unsigned short>(top / 2);
  return waveformOf(20, 5, {{9, {half, top, half}}});
}

/// 20 samples below the default noise of 20 counts.
inline Samples noSignal() {
  return Samples(20, 5);
}

}  // namespace FullWaveform::Testing
