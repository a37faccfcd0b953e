#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/StrongPtr.h>

namespace OrvikPDF {

/// Test double of the plotter, with which the sources of both plots are compiled: records their calls.
class VectorToPDF {
 public:
  using Range = Holdex::StrongPtr<Kestra::DataRange<double>, Holdex::InterfaceBase>;
  using Bounds = std::optional<std::pair<double, double>>;

  struct Calls {
    std::string file;
    bool flag = false;
    std::string title;
    std::pair<std::string, std::string> axisLabels;
    Bounds xRange;
    Bounds yRangeOfConstructor;
    Bounds yRange;
    std::pair<unsigned int, unsigned int> integers;
    std::vector<std::vector<double>> x;
    std::vector<std::vector<double>> y;
    std::vector<std::string> names;
    std::vector<bool> written;
  };
  static Calls& calls() {
    static Calls last;
    return last;
  }

  VectorToPDF(std::string file, bool flag, std::string title, std::pair<std::string, std::string> axisLabels,
              std::pair<Range, Range> const& ranges, std::pair<unsigned int, unsigned int> integers) {
    calls() = {std::move(file),
               flag,
               std::move(title),
               std::move(axisLabels),
               boundsOf(ranges.first),
               boundsOf(ranges.second),
               boundsOf(ranges.second),
               integers,
               {},
               {},
               {},
               {}};
  }
  void setYRange(Range const& range) { calls().yRange = boundsOf(range); }
  void addVector(std::vector<double> const& x, std::vector<double> const& y, std::string const& name = "") {
    calls().x.push_back(x);
    calls().y.push_back(y);
    calls().names.push_back(name);
  }
  std::string write2Pdf(bool fullPage) {
    calls().written.push_back(fullPage);
    return {};
  }

 private:
  static Bounds boundsOf(Range const& range) {
    return range ? Bounds({range->minimum(), range->maximum()}) : std::nullopt;
  }
};

}  // namespace OrvikPDF
