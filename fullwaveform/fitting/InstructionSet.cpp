#include <fullwaveform/fitting/InstructionSet.h>

#include <initializer_list>

namespace FullWaveform {

bool isAvailable(InstructionSet set) noexcept {
  switch (set) {
    case InstructionSet::Baseline:
      return true;
#if defined(__x86_64__)
    case InstructionSet::Avx2:
      return __builtin_cpu_supports("avx2") != 0;
    case InstructionSet::Avx512:
      return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512dq") != 0 &&
             __builtin_cpu_supports("avx512vl") != 0;
#else
    case InstructionSet::Avx2:
    case InstructionSet::Avx512:
      return false;
#endif
  }
  return false;
}

InstructionSet widestInstructionSet() noexcept {
  for (InstructionSet const set : {InstructionSet::Avx512, InstructionSet::Avx2}) {
    if (isAvailable(set)) {
      return set;
    }
  }
  return InstructionSet::Baseline;
}

}  // namespace FullWaveform
