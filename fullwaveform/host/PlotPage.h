#pragma once

#include <span>
#include <string>

#include <fullwaveform/host/PlotBrush.h>
#include <fullwaveform/host/PlotTicks.h>
#include <fullwaveform/host/VectorToPDF.h>

namespace OrvikPDF {

struct PlotAxis {
  std::string label;
  AxisRange range;
  unsigned int mostIntervals;
};

/// Everything that stands on a page.
struct PlotPage {
  std::string title;
  PlotAxis x;
  PlotAxis y;
  std::span<PlotSeries const> series;
  bool marks;     ///< on every value
  bool fullPage;  ///< A4 across instead of a figure
};

/// Draws a page. Several series, or one with a name, get a legend above the frame.
RenderedPage renderPdf(PlotPage const& page);

}  // namespace OrvikPDF
