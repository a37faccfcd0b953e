// The system wave of arbitrary exponential sums.
#include <fullwaveform/scanner/SystemWave.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

ScannerDevice::ComplexTable tableFrom(Fuzz::Bytes& bytes) {
  unsigned int const count = bytes.upTo(9);
  if (count == 9) {
    return {};
  }
  std::vector<std::complex<double>> values;
  for (unsigned int i = 0; i < count; ++i) {
    double const real = bytes.number();
    values.emplace_back(real, bytes.number());
  }
  return Testing::complexTable(std::move(values));
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  double const step = bytes.number();
  unsigned int const length = bytes.byte();
  auto const a = tableFrom(bytes);
  auto const b = tableFrom(bytes);
  auto const wave = createNormalizedSysWave(a, b, step, length, {});
  bool const valid = step > 0.0 && length > 0 && a && b && !a->empty() && a->size() == b->size();
  Fuzz::require(static_cast<bool>(wave) == valid, "a system wave exactly for valid arguments");
  Fuzz::require(!wave || wave->size() == length, "the system wave has the requested length");
  return 0;
}
