#include <cstdint>
#include <string>

#include <nanobind/stl/string.h>

#include <fullwaveform/scanner/ScannerDevice.h>
#include <fullwaveform/scanner/SpeedOfLight.h>

#include "Bindings.h"
#include "GridHandle.h"

namespace nb = nanobind;
using FullWaveform::ScannerDevice;

void bindScanner(nb::module_& module) {
  module.attr("SPEED_OF_LIGHT_IN_AIR") = FullWaveform::speedOfLightInAir;

  nb::class_<ScannerDevice>(module, "ScannerDevice", "The scanner, read from the attributes of its grids.")
      .def(
          "__init__",
          [](ScannerDevice* self, GridHandle const& scanner, GridHandle const* waveforms) {
            new (self) ScannerDevice(
                *scanner.grid, waveforms == nullptr ? Holdex::StrongPtr<Kestra::Grid>() : waveforms->grid);
          },
          nb::arg("scanner_grid"), nb::arg("waveform_grid").none())
      .def("speak", &ScannerDevice::speak)
      .def("getMTALengthAsTime", &ScannerDevice::getMTALengthAsTime)
      .def(
          "set_after_pulse",
          [](ScannerDevice& self, std::uint32_t offset, std::uint32_t width) {
            self.afterpulse_offset = offset;
            self.afterpulse_width = width;
          },
          nb::arg("offset"), nb::arg("width"))
      .def_prop_ro("has_system_wave",
                   [](ScannerDevice const& self) { return self.expsum_a && self.expsum_b; })
      .def_ro("complete", &ScannerDevice::complete)
      .def_ro("sampling_time", &ScannerDevice::sampling_time)
      .def_ro("t_ref", &ScannerDevice::t_ref)
      .def_ro("group_velocity", &ScannerDevice::group_velocity)
      .def_ro("unambiguous_range", &ScannerDevice::unambiguous_range)
      .def_ro("wavelength", &ScannerDevice::wavelength)
      .def_ro("serial", &ScannerDevice::serial)
      .def_ro("type_id", &ScannerDevice::type_id)
      .def_ro("build", &ScannerDevice::build)
      .def_ro("ampl_unit", &ScannerDevice::ampl_unit)
      .def_ro("refl_delta", &ScannerDevice::refl_delta)
      .def_ro("bin_shift", &ScannerDevice::bin_shift)
      .def_ro("scan_kind", &ScannerDevice::scan_kind)
      .def_ro("afterpulse_offset", &ScannerDevice::afterpulse_offset)
      .def_ro("afterpulse_width", &ScannerDevice::afterpulse_width);
}
