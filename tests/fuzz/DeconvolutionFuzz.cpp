// The ladder of deconvolutions and a deconvolution of its own on any record, system wave and size.
#include <stdexcept>

#include <fullwaveform/deconvolution/RL_Planes.h>
#include <fullwaveform/fitting/ZeroCrossing.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

void convolveAnything(RichardsonLucy<unsigned short, ZeroCrossing>& method, Bytes bytes) {
  std::vector<double> const x = bytes.numbers(bytes.byte());
  std::vector<double> out(bytes.flag() ? x.size() : bytes.byte());
  std::size_t const length = out.size();
  method.convolution(x, bytes.upTo(7) == 0 ? nullptr : method.psf_spectrum(), out);
  require(out.size() == length, "a convolution fills what it was given");
}

void useAlone(ScannerDevice const& scanner, unsigned int longest, Record const& record,
              Bytes const& forConvolution) {
  try {
    RichardsonLucy<unsigned short, ZeroCrossing> method(scanner, longest);
    expectSameTwice(method, record);
    convolveAnything(method, forConvolution);
  } catch (std::length_error const&) {
    require(longest == 0, "only a transform for no sample is refused at these sizes");
  }
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  ScannerDevice const scanner = Fuzz::scannerFrom(bytes);
  unsigned int const longest = bytes.upTo(120);
  bool const alone = bytes.flag();
  Fuzz::Bytes const forConvolution = bytes;
  Fuzz::Record const record = Fuzz::recordFrom(bytes, scanner);
  if (alone) {
    useAlone(scanner, longest, record, forConvolution);
  } else {
    RL_Planes<unsigned short, ZeroCrossing> method(scanner, longest);
    Fuzz::expectSameTwice(method, record);
  }
  return 0;
}
