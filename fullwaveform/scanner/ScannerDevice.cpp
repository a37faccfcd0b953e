#include <fullwaveform/scanner/ScannerDevice.h>

#include <fullwaveform/scanner/AttributeReader.h>
#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

/// One console message when an attribute was not found; hands the finding on.
bool reported(bool found, std::string const& name) {
  if (!found) {
    logMessage("ScannerDevice::ScannerDevice: NO " + name);
  }
  return found;
}

/// An attribute of the scanner grid itself, with a message when it is missing.
template <class T>
bool readOwn(std::string const& name, Kestra::Grid const& grid, T& destination) {
  return reported(readAttribute(name, "", grid, destination), name);
}

bool readReflectanceTable(Kestra::Grid const& grid, ScannerDevice::ReflectanceTable& table) {
  constexpr auto name = "reflectance_calculation_table";
  table = ScannerDevice::ReflectanceTable(findAttribute(name, "", grid));
  return reported(static_cast<bool>(table), name);
}

}  // namespace

ScannerDevice::ScannerDevice() : ExtraAttributes{0.0, 1, 0, 0} {}

ScannerDevice::ScannerDevice(Kestra::Grid const& scannerGrid,
                             Holdex::StrongPtr<Kestra::Grid> const& waveformGrid)
    : ScannerDevice() {
  if (waveformGrid && !readWaveformGrid(*waveformGrid)) {
    return;
  }
  if (!readScannerGrid(scannerGrid)) {
    return;
  }
  setExtraAttributes(type_id);
  complete = true;
}

bool ScannerDevice::readWaveformGrid(Kestra::Grid const& grid) {
  // A grid without timing is no waveform grid: the reading ends without a message.
  if (!readAttribute("WaveformSampleInterval", "Waveforms", grid, sampling_time) ||
      !readAttribute("t_ref", "SBL_Time", grid, t_ref)) {
    return false;
  }
  expsum_a = readExponentialSum("a", grid);
  expsum_b = readExponentialSum("b", grid);
  return true;
}

bool ScannerDevice::readScannerGrid(Kestra::Grid const& grid) {
  if (!readOwn("Scanner Group Velocity", grid, group_velocity) ||
      !readOwn("Scanner Serial Number", grid, serial)) {
    return false;
  }
  // The build number serves reports only: its absence is said but does not end the reading.
  static_cast<void>(readOwn("Scanner Build Number", grid, build));
  return readOwn("Scanner Type", grid, type_id) && readOwn("Wavelength[nm]", grid, wavelength) &&
         readOwn("UnambiguousRange", grid, unambiguous_range) &&
         readOwn("reflectance_calculation_delta", grid, refl_delta) &&
         readOwn("ampl_unit", grid, ampl_unit) && readReflectanceTable(grid, refl_tableC);
}

double ScannerDevice::getMTALengthAsTime() const {
  return unambiguous_range / group_velocity;
}

}  // namespace FullWaveform
