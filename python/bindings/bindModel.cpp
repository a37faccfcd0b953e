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
#include <fullwaveform/model/WavePoints.h>
#include <fullwaveform/scanner/ExtraAttributes.h>

#include "Bindings.h"
#include "NumpyColumn.h"

namespace nb = nanobind;
using FullWaveform::Peak;
using Samples = nb::ndarray<unsigned short const, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

namespace {

using Wave = FullWaveform::WavePoints<unsigned short>;

Peak peakOf(double amplitude, double idx, double time, std::uint32_t type, std::uint32_t quality,
            double width, unsigned char classification, float reflectance) {
  return {amplitude,      idx,        time, FullWaveform::TYPE{type}, FullWaveform::QUALITY{quality}, width,
          classification, reflectance};
}

/// The ASCII export of echoes, each with the number of its waveform as label.
nb::bytes asciiLines(Column<std::int64_t> const& labels, Column<float> const& amplitudes,
                     Column<double> const& positions, Column<double> const& widths,
                     Column<double> const& values) {
  std::size_t const rows = labels.shape(0);
  for (std::size_t const length :
       {amplitudes.shape(0), positions.shape(0), widths.shape(0), values.shape(0)}) {
    if (length != rows) {
      throw std::invalid_argument("a column has " + std::to_string(length) + " values, but there are " +
                                  std::to_string(rows) + " rows");
    }
  }
  std::string text;
  for (std::size_t i = 0; i < rows; ++i) {
    Peak const peak = peakOf(amplitudes.data()[i], positions.data()[i], 0.0, FullWaveform::UNBORN,
                             FullWaveform::GOOD, widths.data()[i], 0, 0.0F);
    text += FullWaveform::asciiLine(peak, std::to_string(labels.data()[i]), values.data()[i]);
  }
  return nb::bytes(text.data(), text.size());
}

void bindWavePoints(nb::module_& module) {
  nb::class_<Wave>(module, "WavePoints", "What the analysis of one waveform found, to be reported.")
      .def(nb::init<>())
      .def_rw("isLowPower", &Wave::isLowPower)
      .def_rw("shotTime", &Wave::shotTime)
      .def_rw("sblTime", &Wave::sblTime)
      .def_rw("damping", &Wave::damping)
      .def_rw("idxOfMaxAmplitude", &Wave::idxOfMaxAmplitude)
      .def_rw("maxAmplitude", &Wave::maxAmplitude)
      .def_rw("binShift", &Wave::binShift)
      .def_rw("length", &Wave::length)
      .def_rw("noise", &Wave::noise)
      .def_rw("maxAmplitudeDB", &Wave::maxAmplitudeDB)
      .def_rw("timeOfMaxAmplitude", &Wave::timeOfMaxAmplitude)
      .def_rw("online", &Wave::online)
      .def_rw("globalStart", &Wave::globalStart)
      .def_rw("globalEnd", &Wave::globalEnd)
      .def_rw("lengthCropped", &Wave::lengthCropped)
      .def(
          "add_after_pulse",
          [](Wave& self, double from, double to) { self.afterPulse.emplace_back(from, to); },
          nb::arg("start"), nb::arg("end"))
      .def(
          "add_segment",
          [](Wave& self, std::uint32_t start, std::uint32_t end) { self.startEnd[start] = end; },
          nb::arg("start"), nb::arg("end"))
      .def(
          "add_peak",
          [](Wave& self, double amplitude, double idx, double time, std::uint32_t type, std::uint32_t quality,
             double width, unsigned char classification, float reflectance) {
            self.push_back(peakOf(amplitude, idx, time, type, quality, width, classification, reflectance));
          },
          nb::arg("amplitude"), nb::arg("idx"), nb::arg("time"), nb::arg("type"), nb::arg("quality"),
          nb::arg("std"), nb::arg("classification"), nb::arg("reflectance"))
      .def("print", &Wave::print)
      .def("printLengthAtMaxAmplitude", &Wave::printLengthAtMaxAmplitude, nb::arg("speed"));
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
      .def_prop_ro("description", &FullWaveform::convertType, "The type in words.");
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
      nb::arg("samples"), "Noise level of one record in counts.");
  module.def("ascii_lines", &asciiLines, nb::arg("labels").noconvert(), nb::arg("amplitudes").noconvert(),
             nb::arg("positions").noconvert(), nb::arg("widths").noconvert(), nb::arg("values").noconvert(),
             "A line of the ASCII export per echo.");
  bindWavePoints(module);
}
