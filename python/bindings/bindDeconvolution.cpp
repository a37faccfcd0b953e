#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>

#include <fullwaveform/deconvolution/DeconvolvedSignal.h>
#include <fullwaveform/deconvolution/SystemWaveFit.h>
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "Bindings.h"
#include "EchoRows.h"
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

nb::tuple refineEchoes(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                       InputColumn<double> const& baselines, InputColumn<std::int64_t> const& rows,
                       InputColumn<double> const& positions, ScannerDevice const& device) {
  std::vector<double> refined(positions.data(), positions.data() + positions.shape(0));
  std::vector<double> heights(refined.size());
  {
    nb::gil_scoped_release const release;
    FullWaveform::SystemWaveFit fit(device);
    EchoRows const echoes{samples, counts, rows};
    echoes.forEach([&](std::int64_t row, std::size_t first, std::size_t count) {
      fit.refine(echoes.samplesOf(row), baselines.data()[row], std::span(refined).subspan(first, count),
                 std::span(heights).subspan(first, count));
    });
  }
  return nb::make_tuple(numpyColumn<double>(std::move(refined)), numpyColumn<double>(std::move(heights)));
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
  module.def("refine_echoes", &refineEchoes, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
             nb::arg("baselines").noconvert(), nb::arg("rows").noconvert(), nb::arg("positions").noconvert(),
             nb::arg("scanner"),
             "Positions of deconvolved echoes, refined by fitting the system wave to the samples, and their "
             "heights above the baseline of their row. `rows` is ascending.");
}
