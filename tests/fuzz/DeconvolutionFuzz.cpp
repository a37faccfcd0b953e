// The deconvolution of arbitrary waveforms with arbitrary system waves and lengths, by a ladder or by one
// plane.
#include <stdexcept>

#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/fitting/ZeroCrossing.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

void convolveArbitraryValues(RichardsonLucy<unsigned short, ZeroCrossing>& method, Bytes bytes) {
  std::vector<double> const x = bytes.numbers(bytes.byte());
  std::vector<double> out(bytes.flag() ? x.size() : bytes.byte());
  std::size_t const length = out.size();
  method.convolution(x, bytes.upTo(7) == 0 ? nullptr : method.psf_spectrum(), out);
  require(out.size() == length, "a convolution keeps the length of its result");
}

void useOnePlane(ScannerDevice const& scanner, unsigned int longest, Waveform const& waveform,
                 Bytes const& forConvolution) {
  try {
    RichardsonLucy<unsigned short, ZeroCrossing> method(scanner, longest);
    requireSameTwice(method, waveform);
    convolveArbitraryValues(method, forConvolution);
  } catch (std::length_error const&) {
    require(longest == 0, "only a length of 0 throws for these sizes");
  }
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  ScannerDevice const scanner = Fuzz::scannerFrom(bytes);
  unsigned int const longest = bytes.upTo(120);
  bool const onePlane = bytes.flag();
  Fuzz::Bytes const forConvolution = bytes;
  Fuzz::Waveform const waveform = Fuzz::waveformFrom(bytes, scanner);
  if (onePlane) {
    useOnePlane(scanner, longest, waveform, forConvolution);
  } else {
    RL_Planes<unsigned short, ZeroCrossing> method(scanner, longest);
    Fuzz::requireSameTwice(method, waveform);
  }
  return 0;
}
