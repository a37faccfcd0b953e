#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <fullwaveform/fitting/InstructionSet.h>

struct fftw_plan_s;

namespace FullWaveform {

/// Buffers and plans of the FFT convolutions with one system wave and with its mirror image.
///
/// Planned once; every convolution overwrites the buffers, so that one workspace serves one thread at a time.
/// Workspaces may be created and destroyed in any thread.
class ConvolutionWorkspace {
 public:
  using Complex = double[2];  ///< real and imaginary part, the layout of FFTW

  /// Without buffers and plans.
  ConvolutionWorkspace() noexcept = default;

  /// @param systemWave  the kernel; values after the first `fftLength` are ignored
  /// @param fftLength   length of the transforms
  /// @throws std::bad_alloc when out of memory; std::length_error for a length that FFTW cannot plan
  ConvolutionWorkspace(std::span<double const> systemWave, std::uint32_t fftLength);

  ConvolutionWorkspace(ConvolutionWorkspace&& other) noexcept;
  ConvolutionWorkspace& operator=(ConvolutionWorkspace&& other) noexcept;
  ConvolutionWorkspace(ConvolutionWorkspace const&) = delete;
  ConvolutionWorkspace& operator=(ConvolutionWorkspace const&) = delete;
  ~ConvolutionWorkspace();

  /// False when there are no buffers.
  explicit operator bool() const noexcept { return buffers.fft_in != nullptr; }
  [[nodiscard]] std::size_t fftLength() const noexcept { return length; }
  /// Number of values of a spectrum: fftLength / 2 + 1.
  [[nodiscard]] std::size_t spectrumBins() const noexcept { return length == 0 ? 0 : length / 2 + 1; }
  [[nodiscard]] Complex* psfSpectrum() const noexcept { return buffers.psf_spectrum; }
  [[nodiscard]] Complex* psfReversedSpectrum() const noexcept { return buffers.psf_reversed_spectrum; }

  /// Input of the next convolution, `fftLength` values; convolutions do not change it.
  // NOLINTNEXTLINE(readability-make-member-function-const): gives write access to the buffers
  [[nodiscard]] std::span<double> input() noexcept { return {buffers.fft_in, length}; }
  /// Sets the input to x, padded with zeros; values after the first `fftLength` are ignored.
  void load(std::span<double const> x) noexcept;

  /// Transforms the input, multiplies it by a spectrum and transforms the product back.
  ///
  /// @param kernel  `spectrumBins` values
  /// @return `fftLength` values, not normalised, valid until the next call
  std::span<double const> convolveInput(Complex const* kernel);

  /// Of the loops between the transforms; results are bit-identical with all instruction sets.
  InstructionSet instructionSet = widestInstructionSet();

 private:
  struct Buffers {
    Complex* psf_reversed_spectrum = nullptr;
    Complex* psf_spectrum = nullptr;
    double* fft_in = nullptr;
    Complex* fft_spectrum = nullptr;  ///< also holds the product with a kernel
    fftw_plan_s* forward_plan = nullptr;
    double* fft_out = nullptr;
    fftw_plan_s* inverse_plan = nullptr;
  };

  void allocateAndPlan();
  void setKernels(std::span<double const> systemWave);
  void release() noexcept;

  std::size_t length = 0;
  Buffers buffers;
};

}  // namespace FullWaveform
