#pragma once

namespace FullWaveform {

/// 20 log10(counts * unit) in dB; exactly 0 if counts * unit is below 1.0001.
float toDecibel(double counts, double unit);

}  // namespace FullWaveform
