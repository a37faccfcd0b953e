#pragma once

#include <cstddef>
#include <span>
#include <string>

#include <cairo.h>

#include <fullwaveform/host/PlotCurve.h>

namespace OrvikPDF {

/// A finished page.
struct RenderedPage {
  std::string bytes;    ///< a whole PDF file
  std::string trouble;  ///< empty when there was none
};

/// Draws lines, dots and texts on a page of a PDF. Lengths are points, 1/72 inch; y grows downwards from the
/// upper left corner.
class PlotBrush {
 public:
  PlotBrush(double width, double height, std::string const& title);
  PlotBrush(PlotBrush const&) = delete;
  PlotBrush& operator=(PlotBrush const&) = delete;
  ~PlotBrush();

  void useInk(double lineWidth);
  void useGrey(double lineWidth);
  /// Colour and dashes of the curve with this number.
  void useCurve(std::size_t number);
  void useBoldLetters(bool bold);

  [[nodiscard]] double widthOf(std::string const& text, double size) const;
  /// Writes with the baseline beginning at (x, y); returns the width.
  double write(double x, double y, std::string const& text, double size);
  void line(std::span<FramePoint const> points);
  void rectangle(FramePoint upperLeft, FramePoint lowerRight);
  void dot(FramePoint centre, double radius);

  /// Until `popPlace`, (0, 0) is at `origin`, and everything is turned and scaled.
  void pushPlace(FramePoint origin, double angle, double scale);
  void popPlace();

  /// Closes the page; nothing may be drawn after it.
  RenderedPage finish();

 private:
  std::string bytes;  ///< what was drawn; written to by the surface, hence before it
  cairo_surface_t* surface;
  cairo_t* context;
};

}  // namespace OrvikPDF
