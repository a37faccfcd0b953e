#pragma once

#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform::Testing {

inline constexpr auto chart = "StandardCartesianChart3D";

template <class T>
Holdex::StrongPtr<Holdex::ChunkBase> chunkOf(std::vector<T> values) {
  return Holdex::makeStrong<Holdex::Chunk<T>>(std::move(values));
}

template <class T>
void set(Holdex::Attributes& attributes, std::string const& name, T value) {
  attributes.setAttribute(name, chunkOf<T>({std::move(value)}));
}

/// The values of the grids below that tests change.
struct ScannerValues {
  std::string type = "VQ-840-GL";
  double samplingTime = 1e-9;  // s
  double tRef = 0.0;           // s
  double amplUnit = 0.01;
};

/// Grid with all attributes of the scanner itself.
inline Holdex::StrongPtr<Kestra::Grid> scannerGrid(ScannerValues const& values = {}) {
  auto grid = Holdex::makeStrong<Kestra::Grid>();
  Holdex::Attributes& attributes = grid->attributes();
  set(attributes, "Scanner Group Velocity", 299700000.0);
  set<std::string>(attributes, "Scanner Serial Number", "S2227823");
  set<std::string>(attributes, "Scanner Build Number", "B17");
  set(attributes, "Scanner Type", values.type);
  set(attributes, "Wavelength[nm]", 532.0F);
  set(attributes, "UnambiguousRange", 599.4);
  set(attributes, "reflectance_calculation_delta", 0.25);
  set(attributes, "ampl_unit", values.amplUnit);
  attributes.setAttribute("reflectance_calculation_table", chunkOf<float>({0.1F, 0.2F}));
  return grid;
}

/// Grid with the fields of the waveforms and exponential sums of two terms.
inline Holdex::StrongPtr<Kestra::Grid> waveformGrid(ScannerValues const& values = {}) {
  auto grid = Holdex::makeStrong<Kestra::Grid>();
  Kestra::Representation& representation = grid->addCartesianRepresentation(chart);
  Holdex::Attributes& waveforms = representation.addField("Waveforms").attributes();
  set(waveforms, "WaveformSampleInterval", values.samplingTime);
  waveforms.setAttribute("a_real", chunkOf<double>({1.0, 2.0}));
  waveforms.setAttribute("a_imag", chunkOf<double>({-1.0, 0.5}));
  waveforms.setAttribute("b_real", chunkOf<double>({-3e8, -4e8}));
  waveforms.setAttribute("b_imag", chunkOf<double>({5e8, -5e8}));
  set(representation.addField("SBL_Time").attributes(), "t_ref", values.tRef);
  return grid;
}

inline ScannerDevice scannerOf(ScannerValues const& values = {}) {
  return ScannerDevice(*scannerGrid(values), waveformGrid(values));
}

}  // namespace FullWaveform::Testing
