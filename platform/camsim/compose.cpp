// camsim_compose: what the encoder would burn into a frame, as a PNG.
#include <cairo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "camsim.h"
#include "state.h"

namespace {

constexpr int kMaxSide = 16384;
constexpr std::uint32_t kBoxColor = 0xFFFF00FFu;

struct Snapshot {
  internal_overlay rec;
  std::uint32_t offset;  // shown buffer
  std::array<cam_palette_color, CAMSIM_PALETTE_ENTRIES> bank;
  std::vector<std::uint8_t> pixels;
};

struct SurfaceDeleter {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
  void operator()(cairo_t* c) const { cairo_destroy(c); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using Context = std::unique_ptr<cairo_t, ContextDeleter>;

std::uint8_t clamp_byte(double v) {
  return static_cast<std::uint8_t>(std::clamp(std::lround(v), 0L, 255L));
}

// Full-range BT.601, the inverse of the conversion the palette was loaded
// with, so a colour comes back within a step of what was sent.
std::uint32_t ycbcr_to_argb(std::uint8_t y, std::uint8_t cb, std::uint8_t cr, std::uint8_t alpha) {
  const double Y = y, Cb = cb - 128.0, Cr = cr - 128.0;
  const std::uint32_t r = clamp_byte(Y + 1.402 * Cr);
  const std::uint32_t g = clamp_byte(Y - 0.344136 * Cb - 0.714136 * Cr);
  const std::uint32_t b = clamp_byte(Y + 1.772 * Cb);
  return std::uint32_t{alpha} << 24 | r << 16 | g << 8 | b;
}

// cairo wants premultiplied pixels.
std::uint32_t premultiply(std::uint32_t argb) {
  const std::uint32_t a = argb >> 24;
  auto scale = [a](std::uint32_t c) { return (c * a + 127) / 255; };
  return a << 24 | scale((argb >> 16) & 0xFF) << 16 | scale((argb >> 8) & 0xFF) << 8 |
         scale(argb & 0xFF);
}

// The colour of pixel (x, y) of an overlay of a decodable type.
std::uint32_t pixel_argb(const Snapshot& s, std::uint32_t x, std::uint32_t y) {
  const std::uint8_t* p = s.pixels.data();
  const std::uint64_t w = s.rec.width, n = w * s.rec.height, i = y * w + x;
  switch (s.rec.type) {
    case 5: {  // first half: 4-bit indices, pixel 0 in the low nibble
      const std::uint8_t byte = p[i / 2];
      const cam_palette_color& c = s.bank[(i & 1) != 0 ? byte >> 4 : byte & 0x0F];
      return ycbcr_to_argb(c.luma, c.cb, c.cr, c.alpha);
    }
    case 8: {
      const std::uint64_t chroma = n + (y / 2) * w + 2 * (x / 2);  // (Cr, Cb) of plane A
      return ycbcr_to_argb(p[i], p[chroma + 1], p[chroma], p[2 * n + i]);
    }
    case 4: {
      std::uint32_t word;
      std::memcpy(&word, p + 4 * i, sizeof word);
      return word;
    }
    case 6: {
      const std::uint64_t stride = (w + 7) >> 3;
      const bool set = (p[y * stride + x / 8] >> (x % 8)) & 1u;
      return s.rec.palette_colors[set ? 1 : 0];
    }
    default:
      return 0;
  }
}

bool marked_box_pixel(std::uint32_t x, std::uint32_t y, std::uint32_t w, std::uint32_t h) {
  if (x == 0 || y == 0 || x + 1 == w || y + 1 == h) return true;
  // Both diagonals, one pixel wide along the longer side.
  const std::uint64_t a = std::uint64_t{x} * (h - 1), b = std::uint64_t{y} * (w - 1);
  const std::uint64_t tolerance = std::max(w, h) - 1;
  const std::uint64_t mirrored = std::uint64_t{w - 1 - x} * (h - 1);
  auto near = [tolerance](std::uint64_t u, std::uint64_t v) {
    return (u > v ? u - v : v - u) * 2 <= tolerance;
  };
  return near(a, b) || near(mirrored, b);
}

// The visible part of one overlay as a cairo surface.
Surface draw_overlay(const Snapshot& s) {
  const std::uint32_t vw = std::min(s.rec.visible_width, s.rec.width);
  const std::uint32_t vh = std::min(s.rec.visible_height, s.rec.height);
  Surface surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(vw), static_cast<int>(vh)));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  cairo_surface_flush(surface.get());
  unsigned char* data = cairo_image_surface_get_data(surface.get());
  const int stride = cairo_image_surface_get_stride(surface.get());
  const bool decodable = s.rec.type == 4 || s.rec.type == 5 || s.rec.type == 6 || s.rec.type == 8;
  for (std::uint32_t y = 0; y < vh; ++y) {
    auto* row = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
    for (std::uint32_t x = 0; x < vw; ++x) {
      if (decodable)
        row[x] = premultiply(pixel_argb(s, x, y));
      else
        row[x] = marked_box_pixel(x, y, vw, vh) ? kBoxColor : 0;
    }
  }
  cairo_surface_mark_dirty(surface.get());
  return surface;
}

Surface test_picture(int width, int height) {
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  cairo_surface_flush(surface.get());
  unsigned char* data = cairo_image_surface_get_data(surface.get());
  const int stride = cairo_image_surface_get_stride(surface.get());
  for (int y = 0; y < height; ++y) {
    auto* row = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
    for (int x = 0; x < width; ++x)
      row[x] = ((x / 16 + y / 16) % 2 == 0) ? 0xFF404040u : 0xFF606060u;
  }
  cairo_surface_mark_dirty(surface.get());
  return surface;
}

bool read_pixels(int fd, Snapshot& s) {
  s.pixels.resize(s.rec.buffer_size);
  std::size_t done = 0;
  while (done < s.pixels.size()) {
    const ssize_t n = pread(fd, s.pixels.data() + done, s.pixels.size() - done,
                            static_cast<off_t>(s.offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

extern "C" CAMSIM_API int camsim_compose(const uint32_t ids[8], int width, int height,
                                         const char* png_path) {
  if (ids == nullptr || png_path == nullptr || width <= 0 || height <= 0 || width > kMaxSide ||
      height > kMaxSide) {
    errno = EINVAL;
    return -1;
  }
  const camsim::Attachment* a = camsim::attach();
  if (a == nullptr) return -1;

  // Take what is shown now under the lock; draw from the copies.
  std::array<std::unique_ptr<Snapshot>, 8> shown;
  {
    camsim::Lock lock(*a);
    if (!lock.held()) return -1;
    for (std::size_t place = 0; place < shown.size(); ++place) {
      const camsim::OverlaySlot* o = camsim::find_overlay(*a->state, ids[place]);
      if (o == nullptr || o->shown < 0) continue;
      auto s = std::make_unique<Snapshot>();
      s->rec = o->rec;
      s->offset = o->buffers[o->shown].offset;
      std::copy_n(a->state->palette[o->rec.palette_bank & 1], CAMSIM_PALETTE_ENTRIES,
                  s->bank.begin());
      shown[place] = std::move(s);
    }
  }

  Surface frame = test_picture(width, height);
  if (frame == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  Context cr(cairo_create(frame.get()));
  int drawn = 0;
  for (std::size_t place = shown.size(); place-- > 0;) {  // place 0 ends on top
    Snapshot* s = shown[place].get();
    if (s == nullptr || !read_pixels(a->fd, *s)) continue;
    Surface ovl = draw_overlay(*s);
    if (ovl == nullptr) continue;
    double x = s->rec.x, y = s->rec.y;
    if (s->rec.coord_type == OVERLAY_COORDS_NORMALIZED) {
      x = std::floor(x * width / 16384.0);
      y = std::floor(y * height / 16384.0);
    }
    x = std::max(
        0.0, std::min(x, static_cast<double>(width - cairo_image_surface_get_width(ovl.get()))));
    y = std::max(
        0.0, std::min(y, static_cast<double>(height - cairo_image_surface_get_height(ovl.get()))));
    cairo_set_source_surface(cr.get(), ovl.get(), x, y);
    cairo_paint(cr.get());
    ++drawn;
  }
  cr.reset();
  if (cairo_surface_write_to_png(frame.get(), png_path) != CAIRO_STATUS_SUCCESS) {
    errno = EIO;
    return -1;
  }
  return drawn;
}
