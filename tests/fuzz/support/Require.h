#pragma once

#include <cstdio>
#include <cstdlib>

namespace FullWaveform::Fuzz {

/// Aborts, which the fuzzer reports as a crash, when an invariant does not hold.
inline void require(bool holds, char const* invariant) {
  if (!holds) {
    std::fprintf(stderr, "invariant violated: %s\n", invariant);
    std::abort();
  }
}

}  // namespace FullWaveform::Fuzz
