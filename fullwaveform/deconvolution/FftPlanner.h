#pragma once

#include <functional>

namespace FullWaveform {

/// Runs `work` under the process-wide lock for creating and destroying FFT plans, because the planner of FFTW
/// is not thread-safe. Exceptions of `work` are rethrown. Must not be nested.
void withFftPlannerLock(std::function<void()> const& work);

}  // namespace FullWaveform
