#include <fullwaveform/deconvolution/FftPlanner.h>

#include <exception>
#include <mutex>

namespace FullWaveform {
namespace {

std::mutex plannerMutex;

}  // namespace

void aloneWithFftPlanner(std::function<void()> const& work) {
  // Without OpenMP the pragma below is nothing, and threads would meet in the planner: the mutex holds then.
  std::scoped_lock const lock(plannerMutex);
  std::exception_ptr failure;
#pragma omp critical(FullWaveformFftw)
  {
    // No exception may leave a critical section: it would stay locked.
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
