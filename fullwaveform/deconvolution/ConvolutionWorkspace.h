#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/InstructionSet.h>

struct fftw_plan_s;

namespace FullWaveform {

/// Owner of the buffers and plans of the FFT convolutions with one system wave and with its mirror image.
///
/// Planned once; every convolution overwrites the buffers, so one workspace serves one thread at a time.
/// Workspaces may be made and destroyed in any thread.
class FULLWAVEFORM_EXPORT ConvolutionWorkspace {
 public:
  using Complex = double[2];  ///< real and imaginary part, as FFTW has it

  /// Without buffers; convolves nothing.
  ConvolutionWorkspace() noexcept = default;

  /// @param systemWave  the kernel; what lies behind `fftLength` values is left out
  /// @param fftLength   length of the transforms
  /// @throws std::bad_alloc without memory; std::length_error for a length that FFTW cannot plan
  ConvolutionWorkspace(std::span<double const> systemWave, std::uint32_t fftLength);

  ConvolutionWorkspace(ConvolutionWorkspace&& other) noexcept;
  ConvolutionWorkspace& operator=(ConvolutionWorkspace&& other) noexcept;
  ConvolutionWorkspace(ConvolutionWorkspace const&) = delete;
  ConvolutionWorkspace& operator=(ConvolutionWorkspace const&) = delete;
  ~ConvolutionWorkspace();

  /// Frees buffers and plans and leaves an empty workspace; only while alone with the planner.
  void releaseAtPlanner() noexcept;

  /// False when there are no buffers.
  explicit operator bool() const noexcept { return held.fft_in != nullptr; }
  [[nodiscard]] std::size_t fftLength() const noexcept { return length; }
  /// Bins of a spectrum, half the length and one.
  [[nodiscard]] std::size_t spectrumBins() const noexcept { return length == 0 ? 0 : length / 2 + 1; }
  [[nodiscard]] Complex* psfSpectrum() const noexcept { return held.psf_spectrum; }
  [[nodiscard]] Complex* psfReversedSpectrum() const noexcept { return held.psf_reversed_spectrum; }

  /// What the next convolution takes, `fftLength` values; convolutions leave it as it is.
  // NOLINTNEXTLINE(readability-make-member-function-const): who may change it may change the workspace
  [[nodiscard]] std::span<double> input() noexcept { return {held.fft_in, length}; }
  /// Sets the input to x followed by zeros; what lies behind `fftLength` values is left out.
  void load(std::span<double const> x) noexcept;

  /// Transforms the input, multiplies it with a spectrum and transforms it back.
  ///
  /// @param kernel  `spectrumBins` values
  /// @return `fftLength` values, not normalised, valid until the next call
  std::span<double const> convolveInput(Complex const* kernel);

  /// For everything between two transforms; the results are the same with each.
  InstructionSet instructionSet = widestInstructionSet();

 private:
  struct Held {
    Complex* psf_reversed_spectrum = nullptr;
    Complex* psf_spectrum = nullptr;
    double* fft_in = nullptr;
    Complex* fft_spectrum = nullptr;  ///< and the product with a kernel, in its place
    fftw_plan_s* forward_plan = nullptr;
    double* fft_out = nullptr;
    fftw_plan_s* inverse_plan = nullptr;
  };

  void allocateAndPlan();
  void setKernels(std::span<double const> systemWave);
  std::size_t length = 0;
  Held held;
};

}  // namespace FullWaveform
