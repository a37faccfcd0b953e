// Plots of any values: ranges and ticks of axes, and whole pages.
#include <cmath>

#include <fullwaveform/host/PlotAxis.h>
#include <fullwaveform/model/PrintWave.h>

#include "support/Inputs.h"

namespace FullWaveform {
namespace {

using namespace Fuzz;

void requireDrawable(double low, double high, unsigned int maxIntervals) {
  OrvikPDF::AxisRange const range = OrvikPDF::drawableRange(low, high);
  require(range.low < range.high && std::isfinite(range.high - range.low), "a range that can be drawn");
  std::vector<double> const ticks = OrvikPDF::findTicks(range, maxIntervals);
  require(ticks.size() <= 52, "a bounded number of ticks");
  for (double const tick : ticks) {
    require(std::isfinite(range.fractionOf(tick)), "every tick has a finite position");
  }
}

}  // namespace
}  // namespace FullWaveform

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  using namespace FullWaveform;
  Fuzz::Bytes bytes(data, size);
  double const low = bytes.number();
  double const high = bytes.number();
  requireDrawable(low, high, bytes.byte());
  if (bytes.upTo(7) != 0) {
    return 0;  // drawing a page is slow
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
