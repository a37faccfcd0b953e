#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <nanobind/ndarray.h>

#include <fullwaveform/pulsefit/EchoUncertainty.h>
#include <fullwaveform/pulsefit/GaussUncertainty.h>
#include <fullwaveform/pulsefit/SystemWaveUncertainty.h>
#include <fullwaveform/pulsefit/ThreePointUncertainty.h>
#include <fullwaveform/scanner/ScannerDevice.h>

#include "Bindings.h"
#include "EchoRows.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using FullWaveform::EchoUncertainty;
using FullWaveform::FittedSamples;
using FullWaveform::SampleNoise;
using FullWaveform::ScannerDevice;

namespace {

using Covariances = nb::ndarray<double const, nb::ndim<2>, nb::c_contig, nb::device::cpu>;
using Column = InputColumn<double>;

/// What is known of the samples of each row of a block.
struct RowsOfSamples {
  EchoRows::Samples const& samples;
  InputColumn<std::uint16_t> const& counts;
  Column const& thresholds;
  Column const& limits;
  Covariances const& covariances;
  Column const& baselineDeviations;
  InputColumn<std::int64_t> const& rows;

  /// Calls `visit(waveform, noise, first, count, result)` for the echoes of each row, then `finish()`.
  template <class Visitor, class Finish>
  nb::tuple columns(Visitor const& visit, Finish const& finish) const {
    std::size_t const total = rows.shape(0);
    ColumnValues<double> positions(total);
    ColumnValues<double> amplitudes(total);
    ColumnValues<double> fwhms(total);
    {
      nb::gil_scoped_release const release;
      std::vector<EchoUncertainty> found(total);
      EchoRows const echoes{samples, counts, rows};
      echoes.forEach([&](std::int64_t row, std::size_t first, std::size_t count) {
        FittedSamples const waveform{echoes.samplesOf(row), thresholds.data()[row], limits.data()[row]};
        std::size_t const lags = covariances.shape(1);
        SampleNoise const noise{{covariances.data() + static_cast<std::size_t>(row) * lags, lags},
                                baselineDeviations.data()[row]};
        visit(waveform, noise, first, count, std::span(found).subspan(first, count));
      });
      finish();
      for (std::size_t k = 0; k < total; ++k) {
        positions[k] = found[k].position;
        amplitudes[k] = found[k].amplitude;
        fwhms[k] = found[k].fwhm;
      }
    }
    return nb::make_tuple(numpyColumn<double>(std::move(positions)),
                          numpyColumn<double>(std::move(amplitudes)), numpyColumn<double>(std::move(fwhms)));
  }
  template <class Visitor>
  nb::tuple columns(Visitor const& visit) const {
    return columns(visit, [] {});
  }
};

nb::tuple threePoint(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                     Column const& thresholds, Column const& limits, Covariances const& covariances,
                     Column const& baselineDeviations, InputColumn<std::int64_t> const& rows,
                     Column const& positions, Column const& sigmas) {
  RowsOfSamples const source{samples, counts, thresholds, limits, covariances, baselineDeviations, rows};
  FullWaveform::ThreePointUncertainty kernel;
  return source.columns(
      [&](FittedSamples const& waveform, SampleNoise const& noise, std::size_t first, std::size_t count,
          std::span<EchoUncertainty> result) {
        kernel.add(waveform, noise, {{positions.data() + first, count}, {sigmas.data() + first, count}},
                   result);
      },
      [&kernel] { kernel.finish(); });
}

nb::tuple gaussians(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                    Column const& thresholds, Column const& limits, Covariances const& covariances,
                    Column const& baselineDeviations, InputColumn<std::int64_t> const& rows,
                    Column const& positions, Column const& heights, Column const& sigmas,
                    Column const& positionSigmas, Column const& reaches) {
  RowsOfSamples const source{samples, counts, thresholds, limits, covariances, baselineDeviations, rows};
  FullWaveform::GaussUncertainty kernel;
  return source.columns([&](FittedSamples const& waveform, SampleNoise const& noise, std::size_t first,
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

nb::tuple systemWaves(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                      Column const& thresholds, Column const& limits, Covariances const& covariances,
                      Column const& baselineDeviations, InputColumn<std::int64_t> const& rows,
                      Column const& positions, Column const& heights, ScannerDevice const& device) {
  RowsOfSamples const source{samples, counts, thresholds, limits, covariances, baselineDeviations, rows};
  FullWaveform::SystemWaveUncertainty kernel(device);
  return source.columns([&](FittedSamples const& waveform, SampleNoise const& noise, std::size_t first,
                            std::size_t count, std::span<EchoUncertainty> result) {
    kernel.apply(waveform, noise, {positions.data() + first, count}, {heights.data() + first, count}, result);
  });
}

/// Adds a function whose arguments begin with the members of `RowsOfSamples`.
template <class Function, class... Arguments>
void define(nb::module_& module, char const* name, Function function, char const* text,
            Arguments const&... arguments) {
  module.def(name, function, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
             nb::arg("thresholds").noconvert(), nb::arg("limits").noconvert(),
             nb::arg("covariances").noconvert(), nb::arg("baseline_deviations").noconvert(),
             nb::arg("rows").noconvert(), arguments..., text);
}

}  // namespace

void bindUncertainty(nb::module_& module) {
  module.attr("MAX_NOISE_LAG") = FullWaveform::maxNoiseLag;
  define(
      module, "three_point_uncertainties", &threePoint,
      "Standard deviations of position (samples), height (counts) and full width at half maximum (samples) "
      "of echoes of the three-point fit. `rows` is ascending; thresholds to baseline deviations have one "
      "value or row of values per row of the samples.",
      nb::arg("positions").noconvert(), nb::arg("sigmas").noconvert());
  define(
      module, "gaussian_uncertainties", &gaussians,
      "The same of decomposed echoes, fitted to the samples within `reaches` of them; their positions with "
      "Gaussians of the width `position_sigmas`.",
      nb::arg("positions").noconvert(), nb::arg("heights").noconvert(), nb::arg("sigmas").noconvert(),
      nb::arg("position_sigmas").noconvert(), nb::arg("reaches").noconvert());
  define(module, "system_wave_uncertainties", &systemWaves,
         "The same of deconvolved echoes with refined positions; they have no width.",
         nb::arg("positions").noconvert(), nb::arg("heights").noconvert(), nb::arg("scanner"));
}
