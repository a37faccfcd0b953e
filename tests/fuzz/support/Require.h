#pragma once

#include <cstdio>
#include <cstdlib>

namespace FullWaveform::Fuzz {

/// Ends the process, which the fuzzer takes for a crash, when something that must always hold does not.
inline void require(bool holds, char const* rule) {
  if (!holds) {
    std::fprintf(stderr, "broken rule: %s\n", rule);
    std::abort();
  }
}

}  // namespace FullWaveform::Fuzz
