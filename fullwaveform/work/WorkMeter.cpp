#include <fullwaveform/work/WorkMeter.h>

#include <utility>

namespace FullWaveform {

TooComplex::TooComplex() : std::runtime_error("the work on the waveform exceeds its limit") {}

Cancelled::Cancelled() : std::runtime_error("the run was cancelled") {}

void WorkMeter::attend() {
  sinceAttention = 0;
  std::uint64_t const waveforms = std::exchange(finished, 0);
  if (monitor) {
    monitor->addWaveforms(waveforms);
  }
  if (poll) {
    poll();
  }
}

}  // namespace FullWaveform
