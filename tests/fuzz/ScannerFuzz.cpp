// The scanner description from grids with arbitrary attributes, and the driver built from it.
#include <array>

#include <fullwaveform/driver/PeakDetectionFamily.h>
#include <fullwaveform/host/Grid.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;
using Value = Holdex::StrongPtr<Holdex::ChunkBase>;

constexpr std::array<char const*, 16> names{"Scanner Group Velocity",
                                            "Scanner Serial Number",
                                            "Scanner Build Number",
                                            "Scanner Type",
                                            "Wavelength[nm]",
                                            "UnambiguousRange",
                                            "reflectance_calculation_delta",
                                            "reflectance_calculation_table",
                                            "ampl_unit",
                                            "WaveformSampleInterval",
                                            "t_ref",
                                            "a_real",
                                            "a_imag",
                                            "b_real",
                                            "b_imag",
                                            "something else"};

template <class T>
Value chunkOf(std::vector<T> values) {
  return Holdex::makeStrong<Holdex::Chunk<T>>(std::move(values));
}

std::string textFrom(Bytes& bytes) {
  unsigned int const choice = bytes.upTo(3);
  return choice == 0 ? "VQ-880-G" : choice == 1 ? "VQ-840-GL" : bytes.text(bytes.upTo(20));
}

/// Layout: type, number of values, the values.
Value valueFrom(Bytes& bytes) {
  unsigned int const type = bytes.upTo(4);
  unsigned int const count = bytes.upTo(5);
  if (type == 0) {
    return chunkOf(bytes.numbers(count));
  }
  if (type == 1) {
    return chunkOf(bytes.values<float>(count));
  }
  if (type == 2) {
    std::vector<std::string> texts(count);
    std::generate(texts.begin(), texts.end(), [&bytes] { return textFrom(bytes); });
    return chunkOf(std::move(texts));
  }
  if (type == 3) {
    std::vector<std::complex<double>> values(count);
    std::generate(values.begin(), values.end(),
                  [&bytes] { return std::complex<double>(bytes.number(), 1.0); });
    return chunkOf(std::move(values));
  }
  return {};
}

/// Layout: kind of the grids; then name, owner and value of each attribute.
struct Grids {
  Holdex::StrongPtr<Kestra::Grid> own = Holdex::makeStrong<Kestra::Grid>();
  Holdex::StrongPtr<Kestra::Grid> fields;

  explicit Grids(Bytes& bytes) {
    unsigned int const kind = bytes.upTo(7);
    if (kind != 0) {
      fields = kind == 1 ? own : Holdex::makeStrong<Kestra::Grid>();
    }
    char const* const chart = kind == 2 ? "another chart" : "StandardCartesianChart3D";
    for (int i = 0; i < 40 && bytes.remaining() > 0; ++i) {
      char const* const name = names[bytes.upTo(names.size() - 1)];
      unsigned int const owner = bytes.upTo(2);
      if (owner == 0 || !fields) {
        own->attributes().setAttribute(name, valueFrom(bytes));
      } else {
        Kestra::Representation& representation = fields->addCartesianRepresentation(chart);
        representation.addField(owner == 1 ? "Waveforms" : "SBL_Time")
            .attributes()
            .setAttribute(name, valueFrom(bytes));
      }
    }
  }
};

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  unsigned int const maxLength = bytes.upTo(60);
  Grids const grids(bytes);
  ScannerDevice const scanner(*grids.own, grids.fields);
  std::string const report = scanner.speak();
  Fuzz::require(!report.empty(), "a scanner has a report");
  static_cast<void>(scanner.getMTALengthAsTime());
  static_cast<void>(scanner.isRadial() || scanner.isLineWise() || scanner());
  PeakDetectionFamily<unsigned short> const driver(FWFModus::Deconvolution, scanner, "", "", maxLength);
  Fuzz::require(driver.onlineEvaluation.scanner.speak() == report, "the driver has a copy of the scanner");
  return 0;
}
