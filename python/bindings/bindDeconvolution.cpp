#include <utility>

#include <nanobind/ndarray.h>

#include <fullwaveform/deconvolution/DeconvolvedSignal.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using FullWaveform::ScannerDevice;

namespace {

using Samples = nb::ndarray<unsigned short const, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

FullWaveform::DeconvolvedSignal deconvolved(Samples const& samples, ScannerDevice const& device, int noise) {
  nb::gil_scoped_release const release;
  auto const length = static_cast<int>(samples.shape(0));
  FullWaveform::WavePoints<unsigned short> const wave(samples.data(), 1, 0.0, 0.0, length, noise, device);
  return FullWaveform::deconvolvedSignal({samples.data(), samples.shape(0)}, wave, device);
}

nb::tuple deconvolvedSignal(Samples const& samples, ScannerDevice const& device, int noise) {
  FullWaveform::DeconvolvedSignal signal = deconvolved(samples, device, noise);
  return nb::make_tuple(numpyColumn<double>(std::move(signal.values)), signal.first, signal.step);
}

}  // namespace

void bindDeconvolution(nb::module_& module) {
  ScannerDevice const device;
  module.attr("SYSTEM_WAVE_SAMPLES") = device.size_sys;
  module.attr("UP_SAMPLING") = device.up_sampling;
  module.def(
      "deconvolved_signal", &deconvolvedSignal, nb::arg("samples").noconvert(), nb::arg("scanner"),
      nb::arg("noise"),
      "Signal whose maxima are the echoes of a deconvolution: its values in counts, the position of the "
      "first value in samples, and the step between values in samples. Empty if the waveform is not above "
      "the threshold `noise`, which is estimated if negative.");
}
