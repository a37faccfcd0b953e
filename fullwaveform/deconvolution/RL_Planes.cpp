#include <fullwaveform/deconvolution/RL_Planes.h>

#include <cstddef>

namespace FullWaveform {

template <class T, class SimplePeakType>
RL_Planes<T, SimplePeakType>::RL_Planes(ScannerDevice const& device, unsigned int const& maxLength) {
  if (!device.expsum_a || !device.expsum_b) {
    error = " RL_Planes: have no expsum_a/b";
    return;
  }
  plane_count = maxLength / plane_step + 1;
  planes.reserve(plane_count);
  for (std::uint32_t i = 0; i < plane_count; ++i) {
    planes.emplace_back(device, plane_step * (i + 1));
  }
}

template <class T, class SimplePeakType>
unsigned int RL_Planes<T, SimplePeakType>::getIdx(int length) const {
  return static_cast<unsigned int>(length) / plane_step;
}

template <class T, class SimplePeakType>
int RL_Planes<T, SimplePeakType>::apply(T const* samples, Holdex::StrongPtr<WavePoints<T>> const& wave) {
  // Signed, because waveforms of one or two samples have a range that ends before it starts.
  if (!wave || static_cast<std::int32_t>(wave->globalEnd) < static_cast<std::int32_t>(wave->globalStart)) {
    return 1;
  }
  std::size_t const index = wave->lengthCropped / plane_step;
  if (index >= planes.size() || !planes[index]) {
    return 0;
  }
  planes[index].meter = meter;
  return planes[index].apply(samples, wave);
}

template class RL_Planes<unsigned short, ZeroCrossing>;

}  // namespace FullWaveform
