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
    throw std::length_error("ConvolutionWorkspace: no transform of length " + std::to_string(length));
  }
  return length;
}

/// Spectrum of a kernel that stands at the front of `length` values, zero behind it.
void spectrumOf(std::span<double const> kernel, std::size_t length, Complex* spectrum) {
  RealBuffer const padded(allocate<double>(length));
  fftw_plan const plan =
      checked(fftw_plan_dft_r2c_1d(static_cast<int>(length), padded.get(), spectrum, FFTW_ESTIMATE));
  std::size_t const kept = std::min(kernel.size(), length);
  std::copy_n(kernel.begin(), kept, padded.get());
  std::fill(padded.get() + kept, padded.get() + length, 0.0);
  fftw_execute(plan);
  fftw_destroy_plan(plan);
}

}  // namespace

// Delegates: once the empty workspace stands, its destructor frees what an exception leaves behind.
ConvolutionWorkspace::ConvolutionWorkspace(std::span<double const> systemWave, std::uint32_t fftLength)
    : ConvolutionWorkspace() {
  length = checkedLength(fftLength);
  aloneWithFftPlanner([&] {
    allocateAndPlan();
    setKernels(systemWave);
  });
}

ConvolutionWorkspace::ConvolutionWorkspace(ConvolutionWorkspace&& other) noexcept
    : instructionSet(other.instructionSet),
      length(std::exchange(other.length, 0)),
      held(std::exchange(other.held, {})) {}

ConvolutionWorkspace& ConvolutionWorkspace::operator=(ConvolutionWorkspace&& other) noexcept {
  // What stood here goes with the temporary.
  ConvolutionWorkspace taken(std::move(other));
  std::swap(instructionSet, taken.instructionSet);
  std::swap(length, taken.length);
  std::swap(held, taken.held);
  return *this;
}

ConvolutionWorkspace::~ConvolutionWorkspace() {
  if (length != 0) {
    aloneWithFftPlanner([this] { releaseAtPlanner(); });
  }
}

void ConvolutionWorkspace::load(std::span<double const> x) noexcept {
  std::span<double> const values = input();
  auto const behind = std::copy_n(x.begin(), std::min(x.size(), length), values.begin());
  std::fill(behind, values.end(), 0.0);
}

// Not const though it changes no pointer: it overwrites the buffers, which two threads must not do.
// NOLINTNEXTLINE(readability-make-member-function-const)
std::span<double const> ConvolutionWorkspace::convolveInput(Complex const* kernel) {
  fftw_execute(held.forward_plan);
  IterationKernels::multiply(instructionSet, {held.fft_spectrum, spectrumBins()}, kernel);
  fftw_execute(held.inverse_plan);
  return {held.fft_out, length};
}

void ConvolutionWorkspace::allocateAndPlan() {
  int const n = static_cast<int>(length);
  held.fft_in = allocate<double>(length);
  held.fft_spectrum = allocate<Complex>(length);
  held.forward_plan = checked(fftw_plan_dft_r2c_1d(n, held.fft_in, held.fft_spectrum, FFTW_ESTIMATE));
  held.fft_out = allocate<double>(length);
  held.inverse_plan = checked(fftw_plan_dft_c2r_1d(n, held.fft_spectrum, held.fft_out, FFTW_ESTIMATE));
}

void ConvolutionWorkspace::setKernels(std::span<double const> systemWave) {
  std::vector<double> const reversed(systemWave.rbegin(), systemWave.rend());
  held.psf_spectrum = allocate<Complex>(length);
  held.psf_reversed_spectrum = allocate<Complex>(length);
  spectrumOf(systemWave, length, held.psf_spectrum);
  spectrumOf(reversed, length, held.psf_reversed_spectrum);
}

void ConvolutionWorkspace::releaseAtPlanner() noexcept {
  freeBuffer(held.psf_spectrum);
  freeBuffer(held.psf_reversed_spectrum);
  freeBuffer(held.fft_in);
  destroyPlan(held.forward_plan);
  freeBuffer(held.fft_spectrum);
  destroyPlan(held.inverse_plan);
  freeBuffer(held.fft_out);
  length = 0;
}

}  // namespace FullWaveform
