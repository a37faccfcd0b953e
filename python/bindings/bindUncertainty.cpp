#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>

#include <fullwaveform/pulsefit/EchoUncertainty.h>
#include <fullwaveform/pulsefit/GaussUncertainty.h>
#include <fullwaveform/pulsefit/SystemWaveUncertainty.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "Bindings.h"
#include "FittedRows.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using FullWaveform::EchoUncertainty;
using FullWaveform::FittedSamples;
using FullWaveform::SampleNoise;
using FullWaveform::ScannerDevice;

namespace {

using Column = InputColumn<double>;
using Rows = InputColumn<std::int64_t>;

/// The three columns that a kernel computes for echoes of the given rows, which ascend. Calls
/// `visit(waveform, noise, first, count, result)` for the echoes of each row.
template <class Visitor>
nb::tuple columnsOf(FittedRows const& waveforms, Rows const& rows, Visitor const& visit) {
  std::size_t const total = rows.shape(0);
  ColumnValues<double> positions(total);
  ColumnValues<double> amplitudes(total);
  ColumnValues<double> fwhms(total);
  {
    nb::gil_scoped_release const release;
    std::vector<EchoUncertainty> found;
    forEachRow(std::span(rows.data(), total), [&](std::int64_t row, std::size_t first, std::size_t count) {
      found.assign(count, EchoUncertainty());
      FittedRows::Noise const noise(waveforms, row);
      visit(waveforms.waveformOf(row), noise.view(), first, count, std::span(found));
      for (std::size_t k = 0; k < count; ++k) {
        positions[first + k] = found[k].position;
        amplitudes[first + k] = found[k].amplitude;
        fwhms[first + k] = found[k].fwhm;
      }
    });
  }
  return nb::make_tuple(numpyColumn<double>(std::move(positions)), numpyColumn<double>(std::move(amplitudes)),
                        numpyColumn<double>(std::move(fwhms)));
}

nb::tuple gaussians(FittedRows const& waveforms, Rows const& rows, Column const& positions,
                    Column const& heights, Column const& sigmas, Column const& positionSigmas,
                    Column const& reaches) {
  FullWaveform::GaussUncertainty kernel;
  return columnsOf(waveforms, rows,
                   [&](FittedSamples const& waveform, SampleNoise const& noise, std::size_t first,
                       std::size_t count, std::span<EchoUncertainty> result) {
                     kernel.apply(waveform, noise,
                                  {.positions = {positions.data() + first, count},
                                   .heights = {heights.data() + first, count},
                                   .sigmas = {sigmas.data() + first, count},
                                   .positionSigmas = {positionSigmas.data() + first, count},
                                   .reaches = {reaches.data() + first, count}},
                                  result);
                   });
}

nb::tuple systemWaves(FittedRows const& waveforms, Rows const& rows, Column const& positions,
                      Column const& heights, ScannerDevice const& device) {
  FullWaveform::SystemWaveUncertainty kernel(device);
  return columnsOf(waveforms, rows,
                   [&](FittedSamples const& waveform, SampleNoise const& noise, std::size_t first,
                       std::size_t count, std::span<EchoUncertainty> result) {
                     kernel.apply(waveform, noise, {positions.data() + first, count},
                                  {heights.data() + first, count}, result);
                   });
}

}  // namespace

void bindUncertainty(nb::module_& module) {
  module.attr("MAX_NOISE_LAG") = FullWaveform::maxNoiseLag;
  nb::class_<FittedRows>(
      module, "FittedRows",
      "Waveforms in which echoes were found, and the noise of their samples: `noise_of_rows` "
      "are indices into limits, covariances and deviations, which are in counts of the "
      "input; `removed` and `scales` lead to those of the samples.")
      .def(nb::init<EchoRows::Samples, InputColumn<std::uint16_t>, Column, Rows, Column,
                    FittedRows::Covariances, Column, Rows, Rows>(),
           nb::arg("samples").noconvert(), nb::arg("counts").noconvert(), nb::arg("thresholds").noconvert(),
           nb::arg("noise_of_rows").noconvert(), nb::arg("limits").noconvert(),
           nb::arg("covariances").noconvert(), nb::arg("baseline_deviations").noconvert(),
           nb::arg("removed").noconvert(), nb::arg("scales").noconvert());
  module.def(
      "gaussian_uncertainties", &gaussians, nb::arg("waveforms"), nb::arg("rows").noconvert(),
      nb::arg("positions").noconvert(), nb::arg("heights").noconvert(), nb::arg("sigmas").noconvert(),
      nb::arg("position_sigmas").noconvert(), nb::arg("reaches").noconvert(),
      "Standard deviations of position (samples), height (counts) and full width at half maximum "
      "(samples) of decomposed echoes, fitted to the samples within `reaches` of them; their positions "
      "with Gaussians of the width `position_sigmas`. `rows` is ascending.");
  module.def("system_wave_uncertainties", &systemWaves, nb::arg("waveforms"), nb::arg("rows").noconvert(),
             nb::arg("positions").noconvert(), nb::arg("heights").noconvert(), nb::arg("scanner"),
             "The same of deconvolved echoes with refined positions; they have no width.");
}
