#pragma once

#include <string>

#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/StrongPtr.h>
#include <fullwaveform/scanner/ScannerDevice.h>

namespace FullWaveform {

/// Chart whose fields have the attributes.
inline constexpr auto fieldChart = "StandardCartesianChart3D";

/// The attribute of a grid (empty field name) or of one of its fields; empty if there is none.
Holdex::StrongPtr<Holdex::ChunkBase> findAttribute(std::string const& name, std::string const& fieldName,
                                                   Kestra::Grid const& grid);

/// Stores the first element of an attribute whose chunk holds exactly the type of the destination.
/// @return whether a value was stored; a chunk of another type or without elements counts as missing.
template <class T>
bool readAttribute(std::string const& name, std::string const& fieldName, Kestra::Grid const& grid,
                   T& destination) {
  Holdex::DynamicPtr<Holdex::Chunk<T>, Holdex::ChunkBase> const chunk(findAttribute(name, fieldName, grid));
  if (!chunk || chunk->empty()) {
    return false;
  }
  destination = (*chunk)[0];
  return true;
}

/// The exponential sum of that name: element i is (name_real[i], name_imag[i]) of the field "Waveforms".
/// Empty if one of the two is missing or empty, or if their lengths differ.
ScannerDevice::ComplexTable readExponentialSum(std::string const& name, Kestra::Grid const& grid);

}  // namespace FullWaveform
