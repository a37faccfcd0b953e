// The Gaussian decomposition of arbitrary waveforms.
#include <fullwaveform/fitting/FittingGaussViaDecomposition.h>
#include <fullwaveform/fitting/ZeroCrossing.h>

#include "support/Inputs.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  ScannerDevice const scanner = Fuzz::scannerFrom(bytes);
  Fuzz::Waveform const waveform = Fuzz::waveformFrom(bytes, scanner);
  FittingGaussViaDecomposition<unsigned short, ZeroCrossing> method(scanner);
  Fuzz::requireSameTwice(method, waveform);
  return 0;
}
