#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include <fullwaveform/model/WavePoints.h>

namespace FullWaveform {

/// The waveforms of one shot, in order of arrival.
struct Shot {
  std::set<std::uint32_t> signatures;  ///< of its waveforms, to detect duplicates
  std::vector<WavePtr> waves;
  std::vector<std::uint32_t> rows;  ///< row of each waveform in the block
};

/// Shots by their time in seconds, ascending.
using ShotMap = std::map<double, Shot>;

}  // namespace FullWaveform
