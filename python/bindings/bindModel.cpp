#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <fullwaveform/model/AsciiExport.h>
#include <fullwaveform/model/NoiseEstimate.h>
#include <fullwaveform/model/Peak.h>
#include <fullwaveform/scanner/ExtraAttributes.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using FullWaveform::Peak;
using Samples = nb::ndarray<unsigned short const, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

namespace {

/// ASCII export of echoes; the label of each is the number of its waveform.
nb::bytes asciiLines(InputColumn<std::int64_t> const& labels, InputColumn<float> const& amplitudes,
                     InputColumn<double> const& positions, InputColumn<double> const& widths,
                     InputColumn<double> const& values) {
  std::size_t const rows = labels.shape(0);
  for (std::size_t const length :
       {amplitudes.shape(0), positions.shape(0), widths.shape(0), values.shape(0)}) {
    if (length != rows) {
      throw std::invalid_argument("column of " + std::to_string(length) + " values; expected " +
                                  std::to_string(rows) + ", one per label");
    }
  }
  std::string text;
  for (std::size_t i = 0; i < rows; ++i) {
    Peak const peak(amplitudes.data()[i], positions.data()[i], 0.0, FullWaveform::UNBORN, FullWaveform::GOOD,
                    widths.data()[i], 0, 0.0F);
    text += FullWaveform::asciiLine(peak, std::to_string(labels.data()[i]), values.data()[i]);
  }
  return nb::bytes(text.data(), text.size());
}

void bindEnumerations(nb::module_& module) {
  using FullWaveform::QUALITY;
  using FullWaveform::TYPE;
  nb::enum_<TYPE>(module, "EchoType", nb::is_arithmetic(), "How an echo was found.")
      .value("UNBORN", TYPE::UNBORN)
      .value("RAW", TYPE::RAW)
      .value("GAUSS_3POINTS", TYPE::GAUSS_3POINTS)
      .value("GAUSS_DECOMPOSITION_1", TYPE::GAUSS_DECOMPOSITION_1)
      .value("GAUSS_DECOMPOSITION_2", TYPE::GAUSS_DECOMPOSITION_2)
      .value("RICHARDSON_LUCY", TYPE::RICHARDSON_LUCY)
      .value("ONLINE_OWP", TYPE::ONLINE_OWP)
      .value("FLAW", TYPE::FLAW)
      .def_prop_ro("description", &FullWaveform::convertType, "Description of the type.");
  nb::enum_<QUALITY>(module, "Quality", nb::is_arithmetic(), "Whether an echo can be trusted.")
      .value("GOOD", QUALITY::GOOD)
      .value("AFTERPULS", QUALITY::AFTERPULS)
      .value("EXCEEDS_RANGE", QUALITY::EXCEEDS_RANGE);
}

bool hasKnownAfterPulse(std::string const& scannerType) {
  FullWaveform::ExtraAttributes attributes{};
  attributes.setExtraAttributes(scannerType);
  return attributes.afterpulse_width != 0;
}

}  // namespace

void bindModel(nb::module_& module) {
  bindEnumerations(module);
  module.attr("MAX_COUNT") = std::numeric_limits<unsigned short>::max();
  module.def("has_known_after_pulse", &hasKnownAfterPulse, nb::arg("scanner_type"),
             "Whether the library knows the after-pulse offset and width of this scanner type.");
  module.def(
      "estimate_noise",
      [](Samples const& samples) {
        return static_cast<unsigned short>(FullWaveform::estimateNoise({samples.data(), samples.shape(0)}));
      },
      nb::arg("samples"), "Estimated threshold of one waveform, in counts.");
  module.def("ascii_lines", &asciiLines, nb::arg("labels").noconvert(), nb::arg("amplitudes").noconvert(),
             nb::arg("positions").noconvert(), nb::arg("widths").noconvert(), nb::arg("values").noconvert(),
             "ASCII export, one line per echo.");
}
