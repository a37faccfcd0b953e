#include <fullwaveform/host/PdfCanvas.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <new>
#include <numbers>
#include <system_error>

#include <cairo-pdf.h>

namespace OrvikPDF {
namespace {

cairo_status_t append(void* document, unsigned char const* data, unsigned int length) {
  try {
    static_cast<std::string*>(document)->append(reinterpret_cast<char const*>(data), length);
  } catch (std::bad_alloc const&) {
    return CAIRO_STATUS_NO_MEMORY;
  }
  return CAIRO_STATUS_SUCCESS;
}

void use(cairo_t* context, Pen const& pen) {
  cairo_set_source_rgb(context, pen.red, pen.green, pen.blue);
  cairo_set_line_width(context, pen.width);
}

}  // namespace

PdfCanvas::PdfCanvas(PagePoint size, std::string const& title)
    : surface(cairo_pdf_surface_create_for_stream(append, &document, size.x, size.y)),
      context(cairo_create(surface)) {
  cairo_pdf_surface_set_metadata(surface, CAIRO_PDF_METADATA_TITLE, drawable(title).c_str());
  cairo_set_line_join(context, CAIRO_LINE_JOIN_ROUND);
}

PdfCanvas::~PdfCanvas() {
  cairo_destroy(context);
  cairo_surface_destroy(surface);
}

void PdfCanvas::line(std::span<PagePoint const> points, Pen const& pen) {
  use(context, pen);
  for (PagePoint const& point : points) {
    cairo_line_to(context, point.x, point.y);
  }
  cairo_stroke(context);
}

void PdfCanvas::dot(PagePoint centre, double radius, Pen const& pen) {
  use(context, pen);
  cairo_arc(context, centre.x, centre.y, radius, 0.0, 2.0 * std::numbers::pi);
  cairo_fill(context);
}

std::string PdfCanvas::drawable(std::string text) const {
  auto const isControl = [](unsigned char c) { return c < 0x20U || c == 0x7FU; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  // Invalid UTF-8 puts a Cairo context into a permanent error state, so it is tested on a separate one.
  cairo_t* const probe = cairo_create(surface);
  cairo_text_extents_t extents{};
  cairo_text_extents(probe, text.c_str(), &extents);
  if (cairo_status(probe) == CAIRO_STATUS_INVALID_STRING) {
    std::replace_if(text.begin(), text.end(), [](unsigned char c) { return c >= 0x80U; }, '?');
  }
  cairo_destroy(probe);
  return text;
}

void PdfCanvas::write(std::string const& text, double size, PagePoint baseline, Align align, bool isBold,
                      double angle) {
  std::string const shown = drawable(text);
  cairo_save(context);
  cairo_set_source_rgb(context, 0.1, 0.1, 0.1);
  cairo_select_font_face(context, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                         isBold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(context, size);
  cairo_text_extents_t extents{};
  cairo_text_extents(context, shown.c_str(), &extents);
  cairo_translate(context, baseline.x, baseline.y);
  cairo_rotate(context, angle);
  cairo_move_to(context, -0.5 * static_cast<int>(align) * extents.x_advance, 0.0);
  cairo_show_text(context, shown.c_str());
  cairo_new_path(context);  // the next line must not start at the end of the text
  cairo_restore(context);
}

void PdfCanvas::finishPage() {
  cairo_show_page(context);
}

std::string PdfCanvas::save(std::string const& file) {
  cairo_surface_finish(surface);
  for (cairo_status_t const status : {cairo_status(context), cairo_surface_status(surface)}) {
    if (status != CAIRO_STATUS_SUCCESS) {
      return cairo_status_to_string(status);
    }
  }
  errno = 0;
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream.write(document.data(), static_cast<std::streamsize>(document.size()));
  stream.close();
  return stream ? "" : std::generic_category().message(errno);
}

}  // namespace OrvikPDF
