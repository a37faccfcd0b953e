#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/deconvolution/RichardsonLucy.h>

namespace FullWaveform {

/// Deconvolution with transforms sized to the waveform: a ladder of planes, one per 25 samples of length, so
/// that short waveforms use short transforms.
///
/// Keeps working memory: one ladder serves one thread at a time.
template <class T, class SimplePeakType>
class RL_Planes {
 public:
  std::vector<RichardsonLucy<T, SimplePeakType>>
      planes;                            ///< plane i: waveforms of up to 25 * (i + 1) samples
  std::uint32_t plane_step = planeStep;  ///< samples
  std::uint32_t plane_count = 0;
  std::string error;           ///< empty when usable; otherwise the reason
  WorkMeter* meter = nullptr;  ///< counts the work of `apply`, which throws what it throws; may be null

  /// @param device     copied into every plane; without exponential sums there are no planes
  /// @param maxLength  maximum waveform length, samples. Memory grows with its square: about 60 MB for 2,500
  ///                   samples, 40 GB for 65,535.
  FULLWAVEFORM_EXPORT RL_Planes(ScannerDevice const& device, unsigned int const& maxLength);

  RL_Planes(RL_Planes&&) noexcept = default;
  RL_Planes& operator=(RL_Planes&&) noexcept = default;
  RL_Planes(RL_Planes const&) = delete;
  RL_Planes& operator=(RL_Planes const&) = delete;
  ~RL_Planes() = default;

  /// Index of the plane for a waveform of `length` samples; out of range for a negative length.
  [[nodiscard]] FULLWAVEFORM_EXPORT unsigned int getIdx(int length) const;

  /// Runs the smallest plane that is long enough for the waveform's `lengthCropped`.
  ///
  /// @param samples  the samples of the waveform, `wave->length` values in counts
  /// @return 0, with the list unchanged, when there is no usable plane of that length; otherwise 1, also when
  ///         the pointer is empty or the waveform has no signal
  FULLWAVEFORM_EXPORT int apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave);
};

extern template class RL_Planes<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
