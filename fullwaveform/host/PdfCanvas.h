#pragma once

#include <span>
#include <string>

#include <cairo.h>

namespace OrvikPDF {

/// A position on the page in points (1/72 inch), y downwards from the upper left corner.
struct PagePoint {
  double x;
  double y;
};

struct Pen {
  double red, green, blue;
  double width;  ///< points
};

/// Which part of a text is placed at the given point.
enum class Align { Left, Centre, Right };

/// Draws the pages of a PDF. They are kept in memory until `save`: Cairo does not report a full disk.
class PdfCanvas {
 public:
  PdfCanvas(PagePoint size, std::string const& title);
  PdfCanvas(PdfCanvas const&) = delete;
  PdfCanvas& operator=(PdfCanvas const&) = delete;
  ~PdfCanvas();

  void line(std::span<PagePoint const> points, Pen const& pen);
  void dot(PagePoint centre, double radius, Pen const& pen);
  /// Writes one line of text. Control characters are drawn as blanks; if the text is not valid UTF-8, every
  /// byte outside ASCII is drawn as a question mark.
  void write(std::string const& text, double size, PagePoint baseline, Align align, bool isBold = false,
             double angle = 0.0);
  void finishPage();
  /// Ends the document and writes it; must be the last call.
  /// @return empty, or why there is no valid file
  [[nodiscard]] std::string save(std::string const& file);

 private:
  [[nodiscard]] std::string drawable(std::string text) const;

  std::string document;  // declared first, because the surface writes to it
  cairo_surface_t* surface;
  cairo_t* context;
};

}  // namespace OrvikPDF
