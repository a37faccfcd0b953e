#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <fullwaveform/fitting/BaselineFit.h>

#include "Bindings.h"
#include "EchoRows.h"
#include "NumpyColumn.h"

namespace nb = nanobind;

namespace {

nb::tuple refineGaussians(EchoRows::Samples const& samples, InputColumn<std::uint16_t> const& counts,
                          InputColumn<double> const& baselines, InputColumn<std::int64_t> const& rows,
                          InputColumn<double> const& positions, InputColumn<double> const& heights,
                          InputColumn<double> const& sigmas) {
  std::size_t const count = rows.shape(0);
  std::vector<double> fittedHeights(heights.data(), heights.data() + count);
  std::vector<double> fittedSigmas(sigmas.data(), sigmas.data() + count);
  {
    nb::gil_scoped_release const release;
    FullWaveform::BaselineFit fit;
    EchoRows const echoes{samples, counts, rows};
    echoes.forEach([&](std::int64_t row, std::size_t first, std::size_t number) {
      fit.refine(echoes.samplesOf(row), baselines.data()[row],
                 {.positions = {positions.data() + first, number},
                  .heights = std::span(fittedHeights).subspan(first, number),
                  .sigmas = std::span(fittedSigmas).subspan(first, number)});
    });
  }
  return nb::make_tuple(numpyColumn<double>(std::move(fittedHeights)),
                        numpyColumn<double>(std::move(fittedSigmas)));
}

}  // namespace

void bindFitting(nb::module_& module) {
  module.def(
      "refine_gaussians", &refineGaussians, nb::arg("samples").noconvert(), nb::arg("counts").noconvert(),
      nb::arg("baselines").noconvert(), nb::arg("rows").noconvert(), nb::arg("positions").noconvert(),
      nb::arg("heights").noconvert(), nb::arg("sigmas").noconvert(),
      "Heights above the baseline of their row and standard deviations of decomposed echoes, fitted at "
      "their positions. `rows` is ascending.");
}
