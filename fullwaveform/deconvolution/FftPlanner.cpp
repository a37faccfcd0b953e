#include <fullwaveform/deconvolution/FftPlanner.h>

#include <exception>
#include <mutex>

namespace FullWaveform {
namespace {

std::mutex plannerMutex;

}  // namespace

void withFftPlannerLock(std::function<void()> const& work) {
  // The critical section has no effect without OpenMP; the mutex then protects the planner.
  std::scoped_lock const lock(plannerMutex);
  std::exception_ptr failure;
#pragma omp critical(FullWaveformFftw)
  {
    // An exception that leaves a critical section would keep it locked.
    try {
      work();
    } catch (...) {
      failure = std::current_exception();
    }
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

}  // namespace FullWaveform
