#include <fullwaveform/host/PlotBrush.h>

#include <array>
#include <new>
#include <numbers>
#include <utility>

#include <cairo-pdf.h>

namespace OrvikPDF {
namespace {

constexpr double curveWidth = 1.1;
constexpr auto letters = "sans-serif";

struct Colour {
  double red, green, blue;
};
constexpr Colour ink{0.1, 0.1, 0.1};
constexpr Colour grey{0.85, 0.85, 0.85};

/// Colours that remain different to the colour-blind (Okabe & Ito 2008); the dashes tell the curves apart on
/// a black-and-white print.
constexpr std::array<Colour, 7> palette{{{0.0, 0.447, 0.698},
                                         {0.835, 0.369, 0.0},
                                         {0.0, 0.62, 0.451},
                                         {0.8, 0.475, 0.655},
                                         {0.1, 0.1, 0.1},
                                         {0.902, 0.624, 0.0},
                                         {0.337, 0.706, 0.914}}};
struct Dash {
  std::array<double, 4> lengths;
  int count;
};
constexpr std::array<Dash, 4> dashes{{{{}, 0}, {{6.0, 2.5}, 2}, {{1.5, 2.0}, 2}, {{8.0, 2.5, 1.5, 2.5}, 4}}};

cairo_status_t collect(void* closure, unsigned char const* data, unsigned int length) {
  try {
    static_cast<std::string*>(closure)->append(reinterpret_cast<char const*>(data), length);
  } catch (std::bad_alloc const&) {
    return CAIRO_STATUS_NO_MEMORY;
  }
  return CAIRO_STATUS_SUCCESS;
}

void useColour(cairo_t* context, Colour colour, double lineWidth) {
  cairo_set_source_rgb(context, colour.red, colour.green, colour.blue);
  cairo_set_line_width(context, lineWidth);
  cairo_set_dash(context, nullptr, 0, 0.0);
}

}  // namespace

PlotBrush::PlotBrush(double width, double height, std::string const& title)
    : surface(cairo_pdf_surface_create_for_stream(collect, &bytes, width, height)),
      context(cairo_create(surface)) {
  cairo_pdf_surface_set_metadata(surface, CAIRO_PDF_METADATA_TITLE, title.c_str());
  cairo_set_line_join(context, CAIRO_LINE_JOIN_ROUND);
  useBoldLetters(false);
}

PlotBrush::~PlotBrush() {
  cairo_destroy(context);
  cairo_surface_destroy(surface);
}

void PlotBrush::useInk(double lineWidth) {
  useColour(context, ink, lineWidth);
}

void PlotBrush::useGrey(double lineWidth) {
  useColour(context, grey, lineWidth);
}

void PlotBrush::useCurve(std::size_t number) {
  useColour(context, palette[number % palette.size()], curveWidth);
  Dash const& dash = dashes[number % dashes.size()];
  cairo_set_dash(context, dash.lengths.data(), dash.count, 0.0);
}

void PlotBrush::useBoldLetters(bool bold) {
  cairo_select_font_face(context, letters, CAIRO_FONT_SLANT_NORMAL,
                         bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
}

double PlotBrush::widthOf(std::string const& text, double size) const {
  cairo_text_extents_t extents{};
  cairo_set_font_size(context, size);
  cairo_text_extents(context, text.c_str(), &extents);
  return extents.x_advance;
}

double PlotBrush::write(double x, double y, std::string const& text, double size) {
  double const width = widthOf(text, size);
  cairo_move_to(context, x, y);
  cairo_show_text(context, text.c_str());
  // A text leaves its end as the current point; the next line must not begin there.
  cairo_new_path(context);
  return width;
}

void PlotBrush::line(std::span<FramePoint const> points) {
  for (FramePoint const& point : points) {
    cairo_line_to(context, point.x, point.y);
  }
  cairo_stroke(context);
}

void PlotBrush::rectangle(FramePoint upperLeft, FramePoint lowerRight) {
  cairo_rectangle(context, upperLeft.x, upperLeft.y, lowerRight.x - upperLeft.x, lowerRight.y - upperLeft.y);
  cairo_stroke(context);
}

void PlotBrush::dot(FramePoint centre, double radius) {
  cairo_arc(context, centre.x, centre.y, radius, 0.0, 2.0 * std::numbers::pi);
  cairo_fill(context);
}

void PlotBrush::pushPlace(FramePoint origin, double angle, double scale) {
  cairo_save(context);
  cairo_translate(context, origin.x, origin.y);
  cairo_rotate(context, angle);
  cairo_scale(context, scale, scale);
}

void PlotBrush::popPlace() {
  cairo_restore(context);
}

RenderedPage PlotBrush::finish() {
  cairo_show_page(context);
  cairo_status_t status = cairo_status(context);
  cairo_surface_finish(surface);
  if (status == CAIRO_STATUS_SUCCESS) {
    status = cairo_surface_status(surface);
  }
  return {std::move(bytes), status == CAIRO_STATUS_SUCCESS ? "" : cairo_status_to_string(status)};
}

}  // namespace OrvikPDF
