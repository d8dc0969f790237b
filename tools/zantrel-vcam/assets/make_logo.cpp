// Draws assets/logo.png, the virtual camera's logo overlay. Run once by hand
// when the logo changes; the PNG is checked in and the build never runs this:
//   g++ -std=c++20 -I../../../include make_logo.cpp $(pkg-config --cflags --libs cairo) -o
//   /tmp/make_logo /tmp/make_logo logo.png
#include <cairo.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "zantrel-base/cairo_ptr.h"

namespace {

constexpr int kWidth = 128;
constexpr int kHeight = 48;

void rounded_rectangle(cairo_t* cr, double x, double y, double w, double h, double r) {
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - r, y + r, r, -M_PI / 2, 0);
  cairo_arc(cr, x + w - r, y + h - r, r, 0, M_PI / 2);
  cairo_arc(cr, x + r, y + h - r, r, M_PI / 2, M_PI);
  cairo_arc(cr, x + r, y + r, r, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: make_logo OUT.png\n", stderr);
    return 2;
  }
  const zantrel::CairoSurfacePtr surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kWidth, kHeight));
  const zantrel::CairoPtr cr(cairo_create(surface.get()));
  // A translucent plate, so the picture below shows at the logo's corners.
  rounded_rectangle(cr.get(), 1, 1, kWidth - 2, kHeight - 2, 10);
  cairo_set_source_rgba(cr.get(), 0.05, 0.15, 0.35, 0.85);
  cairo_fill_preserve(cr.get());
  cairo_set_source_rgb(cr.get(), 1.0, 0.75, 0.1);
  cairo_set_line_width(cr.get(), 2);
  cairo_stroke(cr.get());
  // The lens: two rings and a highlight.
  cairo_arc(cr.get(), 24, 24, 14, 0, 2 * M_PI);
  cairo_set_source_rgb(cr.get(), 1.0, 0.75, 0.1);
  cairo_fill(cr.get());
  cairo_arc(cr.get(), 24, 24, 8, 0, 2 * M_PI);
  cairo_set_source_rgb(cr.get(), 0.05, 0.15, 0.35);
  cairo_fill(cr.get());
  cairo_arc(cr.get(), 21, 21, 3, 0, 2 * M_PI);
  cairo_set_source_rgb(cr.get(), 1, 1, 1);
  cairo_fill(cr.get());
  // The name.
  cairo_select_font_face(cr.get(), "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  cairo_set_font_size(cr.get(), 20);
  cairo_move_to(cr.get(), 44, 31);
  cairo_set_source_rgb(cr.get(), 1, 1, 1);
  cairo_show_text(cr.get(), "zantrel");
  cairo_surface_flush(surface.get());
  if (cairo_surface_write_to_png(surface.get(), argv[1]) != CAIRO_STATUS_SUCCESS) {
    std::fprintf(stderr, "make_logo: cannot write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
