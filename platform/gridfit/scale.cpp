// Scaling through cairo: its image surfaces are premultiplied, so pixels are
// premultiplied on the way in and straightened on the way out.
#include <cairo.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "gridfit_private.h"
#include "zantrel-base/cairo_ptr.h"

namespace gridfit {
namespace {

using Surface = zantrel::CairoSurfacePtr;
using Context = zantrel::CairoPtr;

Surface make_surface(int width, int height) {
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    return nullptr;
  }
  return surface;
}

// c × a / 255, rounded, as pixman does it.
std::uint32_t multiply(std::uint32_t c, std::uint32_t a) {
  const std::uint32_t t = c * a + 0x80;
  return (t + (t >> 8)) >> 8;
}

std::uint32_t premultiply(std::uint32_t argb) {
  const std::uint32_t a = argb >> 24;
  if (a == 0xFF) {
    return argb;
  }
  return a << 24 | multiply(argb >> 16 & 0xFF, a) << 16 | multiply(argb >> 8 & 0xFF, a) << 8 |
         multiply(argb & 0xFF, a);
}

std::uint32_t straighten(std::uint32_t argb) {
  const std::uint32_t a = argb >> 24;
  if (a == 0xFF) {
    return argb;
  }
  if (a == 0) {
    return 0;
  }
  auto channel = [a](std::uint32_t c) {
    const std::uint32_t v = (c * 255 + a / 2) / a;
    return v > 255 ? 255 : v;
  };
  return a << 24 | channel(argb >> 16 & 0xFF) << 16 | channel(argb >> 8 & 0xFF) << 8 |
         channel(argb & 0xFF);
}

}  // namespace

std::optional<Image> scale_image(const Image& source, int width, int height) {
  Surface src = make_surface(source.width, source.height);
  Surface dst = make_surface(width, height);
  if (!src || !dst) {
    return std::nullopt;
  }

  cairo_surface_flush(src.get());
  unsigned char* src_data = cairo_image_surface_get_data(src.get());
  const int src_stride = cairo_image_surface_get_stride(src.get());
  for (int y = 0; y < source.height; ++y) {
    auto* row =
        reinterpret_cast<std::uint32_t*>(src_data + static_cast<std::ptrdiff_t>(y) * src_stride);
    const std::uint32_t* in = &source.argb[static_cast<std::size_t>(y) * source.width];
    for (int x = 0; x < source.width; ++x) {
      row[x] = premultiply(in[x]);
    }
  }
  cairo_surface_mark_dirty(src.get());

  Context cr(cairo_create(dst.get()));
  cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
  cairo_scale(cr.get(), static_cast<double>(width) / source.width,
              static_cast<double>(height) / source.height);
  cairo_set_source_surface(cr.get(), src.get(), 0, 0);
  cairo_pattern_t* pattern = cairo_get_source(cr.get());
  cairo_pattern_set_filter(pattern, CAIRO_FILTER_GOOD);
  // Padding repeats the edge pixels; without it the filter would blend the
  // image's border with transparency outside it and fade the edges.
  cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);
  cairo_paint(cr.get());
  if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) {
    return std::nullopt;
  }
  cairo_surface_flush(dst.get());

  Image out;
  out.width = width;
  out.height = height;
  out.argb.resize(static_cast<std::size_t>(width) * height);
  const unsigned char* dst_data = cairo_image_surface_get_data(dst.get());
  const int dst_stride = cairo_image_surface_get_stride(dst.get());
  for (int y = 0; y < height; ++y) {
    const auto* row = reinterpret_cast<const std::uint32_t*>(
        dst_data + static_cast<std::ptrdiff_t>(y) * dst_stride);
    std::uint32_t* o = &out.argb[static_cast<std::size_t>(y) * width];
    for (int x = 0; x < width; ++x) {
      o[x] = straighten(row[x]);
    }
  }
  return out;
}

}  // namespace gridfit
