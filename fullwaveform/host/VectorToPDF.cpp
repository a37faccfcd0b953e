#include <fullwaveform/host/VectorToPDF.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <limits>
#include <system_error>

#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/PlotPage.h>
#include <fullwaveform/host/PlotTicks.h>

namespace OrvikPDF {
namespace {

/// Keeps the extremes of a curve off the frame.
constexpr double verticalMargin = 0.05;

/// The finite values of one coordinate of all series; [0, 1] without any.
AxisRange rangeOf(std::vector<PlotSeries> const& series, std::vector<double> PlotSeries::* coordinate) {
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  for (PlotSeries const& one : series) {
    for (double const value : one.*coordinate) {
      if (std::isfinite(value)) {
        low = std::min(low, value);
        high = std::max(high, value);
      }
    }
  }
  return low > high ? AxisRange() : drawableRange(low, high);
}

/// The range given, where it is one: a range with an end that is not finite says nothing.
AxisRange rangeOf(VectorToPDF::Range const& given, std::vector<PlotSeries> const& series,
                  std::vector<double> PlotSeries::* coordinate) {
  bool const isUsable = given && std::isfinite(given->minimum()) && std::isfinite(given->maximum());
  return isUsable ? drawableRange(given->minimum(), given->maximum()) : rangeOf(series, coordinate);
}

/// Empty, or why the bytes are not in the file.
std::string writeFile(std::string const& file, std::string const& bytes) {
  errno = 0;
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream.close();
  if (stream) {
    return {};
  }
  std::string const reason = errno == 0 ? "unknown reason" : std::generic_category().message(errno);
  return "VectorToPDF::write2Pdf: cannot write " + file + ": " + reason;
}

}  // namespace

VectorToPDF::VectorToPDF(std::string file, bool flag, std::string title,
                         std::pair<std::string, std::string> axisLabels, std::pair<Range, Range> ranges,
                         std::pair<unsigned int, unsigned int> mostIntervals)
    : file(std::move(file)),
      marks(flag),
      title(std::move(title)),
      axisLabels(std::move(axisLabels)),
      ranges(std::move(ranges)),
      mostIntervals(mostIntervals) {}

void VectorToPDF::addVector(std::vector<double> const& x, std::vector<double> const& y,
                            std::string const& name) {
  if (x.empty() || x.size() != y.size()) {
    Holdex::Console() << "VectorToPDF::addVector: broken data";
    return;
  }
  series.push_back({x, y, name});
}

std::string VectorToPDF::write2Pdf(bool fullPage) const {
  AxisRange const xRange = rangeOf(ranges.first, series, &PlotSeries::x);
  AxisRange const yRange = withMargin(rangeOf(ranges.second, series, &PlotSeries::y), verticalMargin);
  PlotPage const page{title,
                      {axisLabels.first, xRange, mostIntervals.first},
                      {axisLabels.second, yRange, mostIntervals.second},
                      series,
                      marks,
                      fullPage};
  RenderedPage const rendered = renderPdf(page);
  return rendered.trouble.empty() ? writeFile(file, rendered.bytes)
                                  : "VectorToPDF::write2Pdf: " + rendered.trouble;
}

}  // namespace OrvikPDF
