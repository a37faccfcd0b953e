#include <fullwaveform/host/VectorToPDF.h>

#include <fullwaveform/host/Console.h>

namespace OrvikPDF {

VectorToPDF::VectorToPDF(std::string file, bool flag, std::string title,
                         std::pair<std::string, std::string> axisLabels, std::pair<Range, Range> ranges,
                         std::pair<unsigned int, unsigned int> maxIntervals)
    : file(std::move(file)),
      marks(flag),
      title(std::move(title)),
      axisLabels(std::move(axisLabels)),
      ranges(std::move(ranges)),
      maxIntervals(maxIntervals) {}

void VectorToPDF::addVector(std::vector<double> x, std::vector<double> y, std::string name) {
  if (x.empty() || x.size() != y.size()) {
    Holdex::Console() << "VectorToPDF::addVector: broken data";
    return;
  }
  series.push_back({std::move(x), std::move(y), std::move(name)});
}

}  // namespace OrvikPDF
