#pragma once

#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/StrongPtr.h>

namespace OrvikPDF {

/// Line plots as a vector PDF, one page per series.
class FULLWAVEFORM_EXPORT VectorToPDF {
 public:
  using Range = Holdex::StrongPtr<Kestra::DataRange<double>, Holdex::InterfaceBase>;

  /// @param file          written by `write2Pdf`
  /// @param flag          whether to mark every value on the line
  /// @param title         of every page, UTF-8
  /// @param axisLabels    of x and y, UTF-8
  /// @param ranges        of x and y; an empty or non-finite one is replaced by that of the series
  /// @param maxIntervals  between the ticks of x and y
  VectorToPDF(std::string file, bool flag, std::string title, std::pair<std::string, std::string> axisLabels,
              std::pair<Range, Range> ranges, std::pair<unsigned int, unsigned int> maxIntervals);

  /// Adds a series with an optional name, shown above the plot. Values that are not finite or outside a
  /// given range interrupt the line.
  /// An empty series, or one with x and y of different lengths, is reported on the console and not added.
  void addVector(std::vector<double> x, std::vector<double> y, std::string name = "");

  void setYRange(Range const& range) { ranges.second = range; }

  /// Writes the file, replacing an existing one. Without a series the page shows title and axes only.
  ///
  /// A page measures 180 mm by 110 mm; the flag of the host's class has no effect here.
  /// @return empty, or the reason why the file could not be written; does not throw
  [[nodiscard]] std::string write2Pdf(bool) const;

 private:
  struct Series {
    std::vector<double> x;
    std::vector<double> y;
    std::string name;
  };

  std::string file;
  bool marks;
  std::string title;
  std::pair<std::string, std::string> axisLabels;
  std::pair<Range, Range> ranges;
  std::pair<unsigned int, unsigned int> maxIntervals;
  std::vector<Series> series;
};

}  // namespace OrvikPDF
