#include <fullwaveform/scanner/AttributeReader.h>

#include <complex>
#include <cstddef>

namespace FullWaveform {

Holdex::StrongPtr<Holdex::ChunkBase> findAttribute(std::string const& name, std::string const& fieldName,
                                                   Kestra::Grid const& grid) {
  if (fieldName.empty()) {
    return grid.attributes().getAttribute(name);
  }
  auto const* representation = grid.getCartesianRepresentation(fieldChart);
  if (representation == nullptr) {
    return {};
  }
  auto const* field = representation->findField(fieldName);
  return field == nullptr ? Holdex::StrongPtr<Holdex::ChunkBase>() : field->attributes().getAttribute(name);
}

ScannerDevice::ComplexTable readExponentialSum(std::string const& name, Kestra::Grid const& grid) {
  using Numbers = Holdex::DynamicPtr<Holdex::Chunk<double>, Holdex::ChunkBase>;
  Numbers const real(findAttribute(name + "_real", "Waveforms", grid));
  Numbers const imag(findAttribute(name + "_imag", "Waveforms", grid));
  if (!real || !imag || real->empty() || real->size() != imag->size()) {
    return {};
  }
  auto table = Holdex::makeStrong<Holdex::Chunk<std::complex<double>>>(real->size());
  for (std::size_t i = 0; i < real->size(); ++i) {
    (*table)[i] = {(*real)[i], (*imag)[i]};
  }
  return table;
}

}  // namespace FullWaveform
