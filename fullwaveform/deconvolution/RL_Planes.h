#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/RichardsonLucy.h>

namespace FullWaveform {

/// Deconvolution with transforms sized to the waveform: a ladder of planes, one for every 25 samples of
/// length, so that short waveforms pay for short transforms.
///
/// Keeps working memory: one ladder serves one thread at a time.
template <class T, class SimplePeakType>
class FULLWAVEFORM_EXPORT RL_Planes {
 public:
  std::vector<RichardsonLucy<T, SimplePeakType>>
      planes;                     ///< plane i: waveforms of up to 25 * (i + 1) samples
  std::uint32_t plane_step = 25;  ///< samples
  std::uint32_t plane_count = 0;
  std::string error;  ///< empty when usable; otherwise the reason

  /// @param device     copied into every plane; without exponential sums the ladder stays empty
  /// @param maxLength  longest waveform, samples. The transforms grow with its square: about 60 MB for 2,500
  ///                   samples, 40 GB for 65,535.
  RL_Planes(ScannerDevice const& device, unsigned int const& maxLength);

  RL_Planes(RL_Planes&&) noexcept = default;
  RL_Planes& operator=(RL_Planes&&) noexcept = default;
  RL_Planes(RL_Planes const&) = delete;
  RL_Planes& operator=(RL_Planes const&) = delete;
  ~RL_Planes();

  /// Number of the plane for a waveform of `length` samples; for a negative one a number far beyond any
  /// plane.
  [[nodiscard]] unsigned int getIdx(int length) const;

  /// Hands a waveform to the smallest plane that is long enough, by its `lengthCropped`.
  ///
  /// @param samples  the record that the waveform was built from, `wave->length` values in counts
  /// @return 0, with the list untouched, when there is no plane for it or the plane has no system wave;
  ///         otherwise 1, also when there is no wave or the wave has no signal
  int apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);
};

extern template class RL_Planes<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
