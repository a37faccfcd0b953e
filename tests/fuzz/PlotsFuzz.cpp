// Plots of any values: ranges and ticks of axes, and whole pages.
#include <cmath>

#include <fullwaveform/host/PlotTicks.h>
#include <fullwaveform/model/PrintWave.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

void expectDrawable(double low, double high, double margin, unsigned int mostIntervals) {
  OrvikPDF::AxisRange const range = OrvikPDF::drawableRange(low, high);
  require(range.low < range.high && std::isfinite(range.high - range.low), "a range that can be drawn");
  OrvikPDF::AxisTicks const ticks = OrvikPDF::findTicks(range, mostIntervals);
  require(ticks.positions.size() == ticks.labels.size(), "every tick has its label");
  require(ticks.positions.size() <= 52, "a bounded number of ticks");
  for (double const position : ticks.positions) {
    require(std::isfinite(OrvikPDF::placeInRange(position, range)), "a tick has a place");
  }
  static_cast<void>(OrvikPDF::withMargin(range, margin));
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  double const low = bytes.number();
  double const high = bytes.number();
  expectDrawable(low, high, bytes.number(), bytes.byte());
  if (bytes.upTo(7) != 0) {
    return 0;  // pages take longer than ticks
  }
  bool const marks = bytes.flag();
  bool const counts = bytes.flag();
  if (counts) {
    std::vector<unsigned short> const samples = bytes.samples();
    printWave(samples.data(), static_cast<unsigned int>(samples.size()), "/dev/null", marks);
  } else {
    std::vector<double> const values = bytes.numbers(bytes.byte());
    printWave(values.data(), static_cast<unsigned int>(values.size()), "/dev/null", marks);
  }
  return 0;
}
