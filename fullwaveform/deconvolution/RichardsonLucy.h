#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/fitting/ZeroCrossing.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/work/WorkMeter.h>

namespace FullWaveform {

/// Step of the planned lengths in an `RL_Planes` ladder, samples.
inline constexpr std::uint32_t planeStep = 25;

/// Extraction by deconvolution with the scanner's system wave: echoes are the maxima of the sharpened signal.
///
/// Planned once for a maximum waveform length. Keeps working memory: one object serves one thread at a time.
template <class T, class SimplePeakType>
class RichardsonLucy {
 public:
  ScannerDevice device;
  std::uint32_t upsampled_length;  ///< maximum length of the up-sampled signal
  std::uint32_t sys_length;        ///< length of the up-sampled system wave
  SimplePeakType peak_finder;
  std::uint32_t fft_length = 0;     ///< length of the transforms
  std::uint64_t spectrum_bins = 0;  ///< fft_length / 2 + 1
  std::string error;                ///< empty when usable; otherwise the reason
  WorkMeter* meter = nullptr;       ///< counts the work of `apply`, which throws what it throws; may be null

  /// Synthesises the system wave and plans the transforms.
  ///
  /// @param device  copied; without exponential sums or sampling interval there is no system wave, which is
  ///                reported on the console and leaves the object unusable
  /// @param count   maximum waveform length, samples; 0 gives a transform shorter than the system wave
  /// @throws std::bad_alloc, std::length_error when memory or the maximum transform length is exceeded
  FULLWAVEFORM_EXPORT RichardsonLucy(ScannerDevice const& device, unsigned int const& count);

  FULLWAVEFORM_EXPORT RichardsonLucy(RichardsonLucy&&) noexcept;
  FULLWAVEFORM_EXPORT RichardsonLucy& operator=(RichardsonLucy&&) noexcept;
  FULLWAVEFORM_EXPORT ~RichardsonLucy();

  /// True when `error` is empty and the transforms exist; a moved-from object has none.
  explicit operator bool() const { return error.empty() && transforms != nullptr; }

  /// Convolution by FFT, centred: out[i] belongs to x[i].
  ///
  /// @param x       input; values after the first `fft_length` are ignored
  /// @param kernel  spectrum of `spectrum_bins` complex values; null gives zeros
  /// @param out     as long as x; values beyond the transform are 0. All 0 for an unusable object.
  FULLWAVEFORM_EXPORT void convolution(std::vector<double> const& x, double (*kernel)[2],
                                       std::vector<double>& out);

  /// Spectra of the system wave and of its mirror image, `spectrum_bins` values; null when unusable.
  [[nodiscard]] FULLWAVEFORM_EXPORT double (*psf_spectrum() const)[2];
  [[nodiscard]] FULLWAVEFORM_EXPORT double (*psf_reversed_spectrum() const)[2];

  /// Appends the echoes of one waveform; sets type and position of all echoes in its list.
  ///
  /// @param samples  the samples of the waveform, `wave->length` values in counts
  /// @param wave     if longer than planned for, its echoes are distorted
  /// @return 1; the list is unchanged
  ///         when the pointer is empty, the signal has fewer than two values,
  ///         or the object is unusable
  FULLWAVEFORM_EXPORT int apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);

 private:
  struct Transforms;

  std::unique_ptr<Transforms> transforms;
};

extern template class RichardsonLucy<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
