#include <fullwaveform/scanner/ScannerDevice.h>

#include <fullwaveform/scanner/AttributeReader.h>
#include <fullwaveform/scanner/LogMessage.h>

namespace FullWaveform {
namespace {

/// Reports an attribute that was not found on the console; returns `found`.
bool reportMissing(bool found, std::string const& name) {
  if (!found) {
    logMessage("ScannerDevice::ScannerDevice: NO " + name);
  }
  return found;
}

/// Reads an attribute of the scanner grid itself, with a message if it is missing.
template <class T>
bool readOwn(std::string const& name, Kestra::Grid const& grid, T& destination) {
  return reportMissing(readAttribute(name, "", grid, destination), name);
}

bool readReflectanceTable(Kestra::Grid const& grid, ScannerDevice::ReflectanceTable& table) {
  constexpr auto name = "reflectance_calculation_table";
  table = ScannerDevice::ReflectanceTable(findAttribute(name, "", grid));
  return reportMissing(static_cast<bool>(table), name);
}

bool readWaveformGrid(Kestra::Grid const& grid, ScannerDevice& scanner) {
  // A grid without timing holds no waveforms: reading stops, without a message.
  if (!readAttribute("WaveformSampleInterval", "Waveforms", grid, scanner.sampling_time) ||
      !readAttribute("t_ref", "SBL_Time", grid, scanner.t_ref)) {
    return false;
  }
  scanner.expsum_a = readExponentialSum("a", grid);
  scanner.expsum_b = readExponentialSum("b", grid);
  return true;
}

bool readScannerGrid(Kestra::Grid const& grid, ScannerDevice& scanner) {
  if (!readOwn("Scanner Group Velocity", grid, scanner.group_velocity) ||
      !readOwn("Scanner Serial Number", grid, scanner.serial)) {
    return false;
  }
  // Only reports use the build number: its absence is reported but does not stop reading.
  static_cast<void>(readOwn("Scanner Build Number", grid, scanner.build));
  return readOwn("Scanner Type", grid, scanner.type_id) &&
         readOwn("Wavelength[nm]", grid, scanner.wavelength) &&
         readOwn("UnambiguousRange", grid, scanner.unambiguous_range) &&
         readOwn("reflectance_calculation_delta", grid, scanner.refl_delta) &&
         readOwn("ampl_unit", grid, scanner.ampl_unit) && readReflectanceTable(grid, scanner.refl_tableC);
}

}  // namespace

ScannerDevice::ScannerDevice() : ExtraAttributes{0.0, 1, 0, 0} {}

ScannerDevice::ScannerDevice(Kestra::Grid const& scannerGrid,
                             Holdex::StrongPtr<Kestra::Grid> const& waveformGrid)
    : ScannerDevice() {
  if (waveformGrid && !readWaveformGrid(*waveformGrid, *this)) {
    return;
  }
  if (!readScannerGrid(scannerGrid, *this)) {
    return;
  }
  setExtraAttributes(type_id);
  complete = true;
}

double ScannerDevice::getMTALengthAsTime() const {
  return unambiguous_range / group_velocity;
}

}  // namespace FullWaveform
