#include "pictures.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <memory>

#include "camsim.h"
#include "zantrel-base/cairo_ptr.h"

namespace vcam {

namespace {

using Surface = zantrel::CairoSurfacePtr;
using Context = zantrel::CairoPtr;

constexpr double kCellWidth = 400;
constexpr double kCellHeight = 225;  // 16:9; other shapes are fitted inside
constexpr double kGap = 8;
constexpr double kLabelWidth = 120;
constexpr double kHeaderHeight = 28;

void label(cairo_t* cr, double x, double y, const std::string& text) {
  cairo_set_source_rgb(cr, 0.9, 0.9, 0.9);
  cairo_move_to(cr, x, y);
  cairo_show_text(cr, text.c_str());
}

bool draw_contact_sheet(const std::string& out_dir, const std::vector<StreamSize>& streams,
                        const std::vector<Capture>& captures, int change_frame) {
  const double width = kLabelWidth + static_cast<double>(captures.size()) * (kCellWidth + kGap);
  const double height =
      kHeaderHeight + static_cast<double>(streams.size()) * (kCellHeight + kGap) + kGap;
  Surface sheet(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(width),
                                           static_cast<int>(height)));
  Context cr(cairo_create(sheet.get()));
  cairo_set_source_rgb(cr.get(), 0.12, 0.12, 0.14);
  cairo_paint(cr.get());
  cairo_select_font_face(cr.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  cairo_set_font_size(cr.get(), 14);
  for (size_t column = 0; column < captures.size(); ++column) {
    const Capture& capture = captures[column];
    std::string title = "t = " + capture.label;
    if (capture.frame >= change_frame) {
      title += "  (after the change)";
    }
    label(cr.get(), kLabelWidth + static_cast<double>(column) * (kCellWidth + kGap), 19, title);
  }
  for (size_t row = 0; row < streams.size(); ++row) {
    const double top = kHeaderHeight + static_cast<double>(row) * (kCellHeight + kGap);
    label(cr.get(), 8, top + kCellHeight / 2, "stream " + std::to_string(row));
    label(cr.get(), 8, top + kCellHeight / 2 + 18, to_string(streams[row]));
    for (size_t column = 0; column < captures.size(); ++column) {
      const std::string path = out_dir + "/" + picture_name(row, streams[row], captures[column]);
      Surface picture(cairo_image_surface_create_from_png(path.c_str()));
      if (cairo_surface_status(picture.get()) != CAIRO_STATUS_SUCCESS) {
        continue;
      }
      const double w = cairo_image_surface_get_width(picture.get());
      const double h = cairo_image_surface_get_height(picture.get());
      const double scale = std::min(kCellWidth / w, kCellHeight / h);
      cairo_save(cr.get());
      cairo_translate(cr.get(), kLabelWidth + static_cast<double>(column) * (kCellWidth + kGap),
                      top);
      cairo_scale(cr.get(), scale, scale);
      cairo_set_source_surface(cr.get(), picture.get(), 0, 0);
      cairo_pattern_set_filter(cairo_get_source(cr.get()), CAIRO_FILTER_GOOD);
      cairo_paint(cr.get());
      cairo_restore(cr.get());
    }
  }
  cairo_surface_flush(sheet.get());
  const std::string path = out_dir + "/" + kContactSheetName;
  return cairo_surface_write_to_png(sheet.get(), path.c_str()) == CAIRO_STATUS_SUCCESS;
}

}  // namespace

std::string picture_name(size_t stream, StreamSize size, const Capture& capture) {
  return "stream" + std::to_string(stream) + "-" + to_string(size) + "-t" + capture.label + ".png";
}

int compose_picture(const overlay_encreq& request, StreamSize size, const std::string& path) {
  return camsim_compose(request.overlay_ids, static_cast<int>(size.width),
                        static_cast<int>(size.height), path.c_str());
}

bool write_contact_sheet(const std::string& out_dir, const std::vector<StreamSize>& streams,
                         const std::vector<Capture>& captures, int change_frame) {
  const bool written = draw_contact_sheet(out_dir, streams, captures, change_frame);
  // The labels' font came through fontconfig, whose caches live until the
  // process ends; every cairo object is gone by now, so both can let go and
  // a leak checker sees only real leaks.
  cairo_debug_reset_static_data();
  FcFini();
  return written;
}

}  // namespace vcam
