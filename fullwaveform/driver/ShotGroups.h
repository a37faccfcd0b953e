#pragma once

#include <span>

#include <fullwaveform/driver/ShotMap.h>

namespace FullWaveform {

/// The entry of a shot in the map, which is added if it is missing.
Shot& shotAt(double time, ShotMap& shots);

/// Enters the signature of a waveform, the sum of every third sample.
///
/// @return false if the shot has a waveform with this signature, of which this one is a duplicate
bool enterSignature(Shot& shot, std::span<unsigned short const> samples);

}  // namespace FullWaveform
