#include <fullwaveform/fitting/InstructionSet.h>

namespace FullWaveform {

bool isAvailable(InstructionSet set) noexcept {
  switch (set) {
    case InstructionSet::Baseline:
      return true;
    case InstructionSet::Avx2:
#if defined(__x86_64__)
      return __builtin_cpu_supports("avx2") != 0;
#else
      return false;
#endif
  }
  return false;
}

InstructionSet widestInstructionSet() noexcept {
  return isAvailable(InstructionSet::Avx2) ? InstructionSet::Avx2 : InstructionSet::Baseline;
}

}  // namespace FullWaveform
