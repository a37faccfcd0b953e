#pragma once

#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/DataRange.h>
#include <fullwaveform/host/ReferenceBase.h>
#include <fullwaveform/host/StrongPtr.h>

namespace OrvikPDF {

/// A curve of a plot.
struct PlotSeries {
  std::vector<double> x;
  std::vector<double> y;
  std::string name;  ///< in the legend; empty: none
};

/// A line plot of one or more series, written as a vector PDF of one page.
class FULLWAVEFORM_EXPORT VectorToPDF {
 public:
  using Range = Holdex::StrongPtr<Kestra::DataRange<double>, Holdex::InterfaceBase>;

  /// @param file           written by `write2Pdf`
  /// @param flag           true: every value gets a mark on the line
  /// @param title          of the plot, UTF-8
  /// @param axisLabels     of x and y, UTF-8
  /// @param ranges         of x and y; an empty pointer: that of the series
  /// @param mostIntervals  between the ticks of x and y
  VectorToPDF(std::string file, bool flag, std::string title, std::pair<std::string, std::string> axisLabels,
              std::pair<Range, Range> ranges, std::pair<unsigned int, unsigned int> mostIntervals);

  /// Adds a curve. Without values, or with x and y of different lengths, nothing is added and a message goes
  /// to the console. Values that are not finite interrupt the line.
  void addVector(std::vector<double> const& x, std::vector<double> const& y, std::string const& name = "");

  void setXRange(Range const& range) { ranges.first = range; }
  void setYRange(Range const& range) { ranges.second = range; }

  /// Draws the page and writes it to the file, over what is there. Without any curve there are only title
  /// and axes.
  ///
  /// @param fullPage  true: an A4 page across; false: a figure of 180 mm by 110 mm
  /// @return empty, or the trouble; nothing is thrown for a file that cannot be written
  [[nodiscard]] std::string write2Pdf(bool fullPage) const;

 private:
  std::string file;
  bool marks;
  std::string title;
  std::pair<std::string, std::string> axisLabels;
  std::pair<Range, Range> ranges;
  std::pair<unsigned int, unsigned int> mostIntervals;
  std::vector<PlotSeries> series;
};

}  // namespace OrvikPDF
