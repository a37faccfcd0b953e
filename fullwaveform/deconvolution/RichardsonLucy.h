#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/ConvolutionWorkspace.h>
#include <fullwaveform/deconvolution/RichardsonLucyIteration.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Extraction by deconvolution with the scanner's system wave: echoes are the maxima of the sharpened signal.
///
/// Planned once for a longest waveform. Keeps working memory: one object serves one thread at a time.
template <class T, class SimplePeakType>
class FULLWAVEFORM_EXPORT RichardsonLucy {
 public:
  ScannerDevice device;
  std::uint32_t upsampled_length;  ///< values of the longest signal
  std::uint32_t sys_length;        ///< values of the system wave, at the step of the up-sampled signal
  SimplePeakType peak_finder;
  std::uint32_t fft_length = 0;     ///< length of the transforms
  std::uint64_t spectrum_bins = 0;  ///< fft_length / 2 + 1
  std::string error;                ///< empty when usable; otherwise the reason

  /// Synthesises the system wave and plans the transforms.
  ///
  /// @param device  copied; without exponential sums or sampling interval there is no system wave, which is
  ///                said on the console and leaves the object unusable
  /// @param count   longest waveform, samples; 0 gives a transform shorter than the system wave
  /// @throws std::bad_alloc, std::length_error when the transforms do not fit
  RichardsonLucy(ScannerDevice const& device, unsigned int const& count);

  /// True when `error` is empty and the transforms are there; they are gone from a released object.
  explicit operator bool() const { return error.empty() && static_cast<bool>(workspace); }

  /// Convolves by FFT, centred: out[i] belongs to x[i].
  ///
  /// @param x       input; what lies behind `fft_length` values is left out
  /// @param kernel  spectrum of `spectrum_bins` complex values; null gives zeros
  /// @param out     as long as x; values beyond the transform are 0. All 0 for an unusable object.
  void convolution(std::vector<double> const& x, double (*kernel)[2], std::vector<double>& out);

  /// Spectra of the system wave and of its mirror image, `spectrum_bins` values; null when unusable.
  [[nodiscard]] ConvolutionWorkspace::Complex* psf_spectrum() const { return workspace.psfSpectrum(); }
  [[nodiscard]] ConvolutionWorkspace::Complex* psf_reversed_spectrum() const {
    return workspace.psfReversedSpectrum();
  }

  /// Appends the echoes of one waveform; every echo of its list is then one of this method.
  ///
  /// @param samples  the record that the waveform was built from, `wave->length` values in counts
  /// @param wave     a waveform longer than planned for gives distorted echoes
  /// @return 1; the list is untouched when there is no wave, no signal of at least two values, or no system
  ///         wave
  int apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);

  /// Frees the transforms of several objects in their order, in one turn at the planner; they are unusable
  /// from then on.
  static void releaseTogether(std::span<RichardsonLucy> planes) noexcept;

  /// For tests and measurements: the results are the same with every instruction set that the machine has.
  void use(InstructionSet set);

 private:
  void planTransforms(std::span<double const> systemWave);
  ConvolutionWorkspace& transformsFor(std::size_t length);
  void mapToSamples(WavePoints<T>& wave) const;

  ConvolutionWorkspace workspace;                    ///< of `fft_length`
  std::vector<ConvolutionWorkspace> fastWorkspaces;  ///< of lengths that are faster, in ascending order
  std::vector<double> observed;
  std::vector<double> estimate;
  std::vector<T> counts;
};

extern template class RichardsonLucy<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
