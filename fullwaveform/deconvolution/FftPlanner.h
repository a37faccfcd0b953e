#pragma once

#include <functional>

namespace FullWaveform {

/// Runs `work` while no other thread of the process makes or destroys FFT plans here: the planner of FFTW is
/// not thread-safe. What `work` throws is passed on. Not to be nested.
void aloneWithFftPlanner(std::function<void()> const& work);

}  // namespace FullWaveform
