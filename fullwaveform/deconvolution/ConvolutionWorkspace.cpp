#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fftw3.h>

#include <fullwaveform/deconvolution/FftPlanner.h>
#include <fullwaveform/deconvolution/IterationKernels.h>

namespace FullWaveform {
namespace {

using Complex = ConvolutionWorkspace::Complex;

static_assert(std::is_same_v<Complex, fftw_complex>);

struct FftwFree {
  void operator()(void* memory) const noexcept { fftw_free(memory); }
};
using RealBuffer = std::unique_ptr<double, FftwFree>;

template <class T>
T* allocate(std::size_t count) {
  auto* const memory = static_cast<T*>(fftw_malloc(count * sizeof(T)));
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

fftw_plan checked(fftw_plan plan) {
  if (plan == nullptr) {
    throw std::bad_alloc();
  }
  return plan;
}

template <class T>
void freeBuffer(T*& buffer) noexcept {
  fftw_free(buffer);
  buffer = nullptr;
}

void destroyPlan(fftw_plan& plan) noexcept {
  if (plan != nullptr) {
    fftw_destroy_plan(plan);
    plan = nullptr;
  }
}

std::uint32_t checkedLength(std::uint32_t length) {
  if (length == 0 || length > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
    throw std::length_error("ConvolutionWorkspace: invalid transform length " + std::to_string(length) +
                            "; expected 1 to 2147483647");
  }
  return length;
}

/// Spectrum of a kernel that is padded with zeros to `length` values.
void spectrumOf(std::span<double const> kernel, std::size_t length, Complex* spectrum) {
  RealBuffer const padded(allocate<double>(length));
  fftw_plan const plan =
      checked(fftw_plan_dft_r2c_1d(static_cast<int>(length), padded.get(), spectrum, FFTW_ESTIMATE));
  std::size_t const used = std::min(kernel.size(), length);
  std::copy_n(kernel.begin(), used, padded.get());
  std::fill(padded.get() + used, padded.get() + length, 0.0);
  fftw_execute(plan);
  fftw_destroy_plan(plan);
}

}  // namespace

// Delegates, so that the destructor releases the buffers when an exception leaves this constructor.
ConvolutionWorkspace::ConvolutionWorkspace(std::span<double const> systemWave, std::uint32_t fftLength)
    : ConvolutionWorkspace() {
  length = checkedLength(fftLength);
  withFftPlannerLock([&] {
    allocateAndPlan();
    setKernels(systemWave);
  });
}

ConvolutionWorkspace::ConvolutionWorkspace(ConvolutionWorkspace&& other) noexcept
    : instructionSet(other.instructionSet),
      length(std::exchange(other.length, 0)),
      buffers(std::exchange(other.buffers, {})) {}

ConvolutionWorkspace& ConvolutionWorkspace::operator=(ConvolutionWorkspace&& other) noexcept {
  ConvolutionWorkspace moved(std::move(other));
  std::swap(instructionSet, moved.instructionSet);
  std::swap(length, moved.length);
  std::swap(buffers, moved.buffers);
  return *this;
}

ConvolutionWorkspace::~ConvolutionWorkspace() {
  if (length != 0) {
    withFftPlannerLock([this] { release(); });
  }
}

void ConvolutionWorkspace::load(std::span<double const> x) noexcept {
  std::span<double> const values = input();
  auto const end = std::copy_n(x.begin(), std::min(x.size(), length), values.begin());
  std::fill(end, values.end(), 0.0);
}

// Not const although it changes no member: it overwrites the buffers.
// NOLINTNEXTLINE(readability-make-member-function-const)
std::span<double const> ConvolutionWorkspace::convolveInput(Complex const* kernel) {
  fftw_execute(buffers.forward_plan);
  IterationKernels::multiply(instructionSet, {buffers.fft_spectrum, spectrumBins()}, kernel);
  fftw_execute(buffers.inverse_plan);
  return {buffers.fft_out, length};
}

void ConvolutionWorkspace::allocateAndPlan() {
  int const n = static_cast<int>(length);
  buffers.fft_in = allocate<double>(length);
  buffers.fft_spectrum = allocate<Complex>(length);
  buffers.forward_plan =
      checked(fftw_plan_dft_r2c_1d(n, buffers.fft_in, buffers.fft_spectrum, FFTW_ESTIMATE));
  buffers.fft_out = allocate<double>(length);
  buffers.inverse_plan =
      checked(fftw_plan_dft_c2r_1d(n, buffers.fft_spectrum, buffers.fft_out, FFTW_ESTIMATE));
}

void ConvolutionWorkspace::setKernels(std::span<double const> systemWave) {
  std::vector<double> const reversed(systemWave.rbegin(), systemWave.rend());
  buffers.psf_spectrum = allocate<Complex>(length);
  buffers.psf_reversed_spectrum = allocate<Complex>(length);
  spectrumOf(systemWave, length, buffers.psf_spectrum);
  spectrumOf(reversed, length, buffers.psf_reversed_spectrum);
}

void ConvolutionWorkspace::release() noexcept {
  freeBuffer(buffers.psf_spectrum);
  freeBuffer(buffers.psf_reversed_spectrum);
  freeBuffer(buffers.fft_in);
  destroyPlan(buffers.forward_plan);
  freeBuffer(buffers.fft_spectrum);
  destroyPlan(buffers.inverse_plan);
  freeBuffer(buffers.fft_out);
  length = 0;
}

}  // namespace FullWaveform
