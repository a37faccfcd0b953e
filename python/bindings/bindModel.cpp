#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Peak.h>

#include "Bindings.h"

namespace nb = nanobind;
using Samples = nb::ndarray<unsigned short const, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

void bindModel(nb::module_& module) {
  module.def(
      "type_text", [](std::uint32_t type) { return FullWaveform::convertType(FullWaveform::TYPE{type}); },
      nb::arg("type"), "Description of an echo type.");
  module.def(
      "estimate_noise",
      [](Samples const& samples) {
        return static_cast<unsigned short>(FullWaveform::estimateNoise({samples.data(), samples.shape(0)}));
      },
      nb::arg("samples"), "Noise level of one record in counts.");
}
