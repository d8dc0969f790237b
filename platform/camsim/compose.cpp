// camsim_compose: what the encoder would burn into a frame, as a PNG.
#include <cairo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "camsim.h"
#include "state.h"
#include "zantrel-base/cairo_ptr.h"
#include "zantrel-base/io.h"

namespace {

constexpr int kMaxSide = 16384;

struct Snapshot {
  internal_overlay rec;
  std::uint32_t offset;  // shown buffer
  std::array<cam_palette_color, CAMSIM_PALETTE_ENTRIES> bank;
  std::vector<std::uint8_t> pixels;
};

using Surface = zantrel::CairoSurfacePtr;
using Context = zantrel::CairoPtr;

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

// A byte of the shown buffer; past its end (the chroma of an odd last row or
// column of a 4:2:0 type) the neutral value.
std::uint8_t byte_at(const Snapshot& s, std::uint64_t i, std::uint8_t past_end = 128) {
  return i < s.pixels.size() ? s.pixels[i] : past_end;
}

// Luma plane, then (Cr, Cb) pairs for every 2 x 2 block, as camsim.h gives
// the 4:2:0 types.
std::uint32_t planar_argb(const Snapshot& s, std::uint32_t x, std::uint32_t y, std::uint8_t alpha) {
  const std::uint64_t w = s.rec.width, n = w * s.rec.height, i = y * w + x;
  const std::uint64_t chroma = n + (y / 2) * w + 2 * (x / 2);
  return ycbcr_to_argb(byte_at(s, i), byte_at(s, chroma + 1), byte_at(s, chroma), alpha);
}

// A channel of `bits` bits stretched to 8 (0 stays 0, all ones is 255).
std::uint32_t widen(std::uint32_t value, unsigned bits) {
  return value * 255u / ((1u << bits) - 1u);
}

// The colour of pixel (x, y) of an overlay; every internal type is decoded.
std::uint32_t pixel_argb(const Snapshot& s, std::uint32_t x, std::uint32_t y) {
  const std::uint64_t w = s.rec.width, n = w * s.rec.height, i = y * w + x;
  switch (s.rec.type) {
    case 0:    // 4-bit palette indices, pixel 0 in the low nibble
    case 5: {  // the same in the first half; the nibble-swapped copy is not read
      const std::uint8_t byte = byte_at(s, i / 2, 0);
      const cam_palette_color& c = s.bank[(i & 1) != 0 ? byte >> 4 : byte & 0x0F];
      return ycbcr_to_argb(c.luma, c.cb, c.cr, c.alpha);
    }
    case 1:  // 4:2:0, opaque
      return planar_argb(s, x, y, 0xFF);
    case 2: {  // ARGB 2:2:2:2
      const std::uint32_t v = byte_at(s, i, 0);
      return widen(v >> 6, 2) << 24 | widen((v >> 4) & 3, 2) << 16 | widen((v >> 2) & 3, 2) << 8 |
             widen(v & 3, 2);
    }
    case 3: {  // ARGB 4:4:4:4, little-endian 16-bit words
      const std::uint32_t v = byte_at(s, 2 * i, 0) | std::uint32_t{byte_at(s, 2 * i + 1, 0)} << 8;
      return widen(v >> 12, 4) << 24 | widen((v >> 8) & 15, 4) << 16 |
             widen((v >> 4) & 15, 4) << 8 | widen(v & 15, 4);
    }
    case 4: {
      std::uint32_t word = 0;
      if (4 * i + 4 <= s.pixels.size()) std::memcpy(&word, s.pixels.data() + 4 * i, sizeof word);
      return word;
    }
    case 6: {
      const std::uint64_t stride = (w + 7) >> 3;
      const bool set = (byte_at(s, y * stride + x / 8, 0) >> (x % 8)) & 1u;
      return s.rec.palette_colors[set ? 1 : 0];
    }
    case 7:  // 4:2:0 with an alpha plane after the chroma
      return planar_argb(s, x, y, byte_at(s, n + n / 2 + i, 0));
    case 8:  // 4:2:0, a second chroma plane, then alpha
      return planar_argb(s, x, y, byte_at(s, 2 * n + i, 0));
    default:
      return 0;
  }
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
  for (std::uint32_t y = 0; y < vh; ++y) {
    auto* row = reinterpret_cast<std::uint32_t*>(data + static_cast<std::ptrdiff_t>(y) * stride);
    for (std::uint32_t x = 0; x < vw; ++x) row[x] = premultiply(pixel_argb(s, x, y));
  }
  cairo_surface_mark_dirty(surface.get());
  return surface;
}

// The test picture into pixels of width words a row: one row of each phase
// of the checkerboard, copied down, as video needs it every frame.
void test_picture(std::uint32_t* pixels, int width, int height) {
  const auto w = static_cast<std::size_t>(width);
  std::vector<std::uint32_t> phases(2 * w);
  for (std::size_t x = 0; x < w; ++x) {
    phases[x] = (x / 16) % 2 == 0 ? 0xFF404040u : 0xFF606060u;
    phases[w + x] = (x / 16) % 2 == 0 ? 0xFF606060u : 0xFF404040u;
  }
  for (int y = 0; y < height; ++y)
    std::memcpy(pixels + y * w, phases.data() + (y / 16) % 2 * w, 4 * w);
}

// Cairo's view of width x height words.
Surface wrap(std::uint32_t* pixels, int width, int height) {
  return Surface(cairo_image_surface_create_for_data(
      reinterpret_cast<unsigned char*>(pixels), CAIRO_FORMAT_ARGB32, width, height, 4 * width));
}

bool read_pixels(int fd, Snapshot& s) {
  s.pixels.resize(s.rec.buffer_size);
  return zantrel::pread_exactly(fd, s.pixels.data(), s.pixels.size(), static_cast<off_t>(s.offset));
}

// The request's overlays over the test picture, into width x height words
// (opaque, so premultiplied is plain); the number drawn, or -1 with errno set.
int compose(const uint32_t ids[8], int width, int height, std::uint32_t* pixels) {
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

  test_picture(pixels, width, height);
  Surface frame = wrap(pixels, width, height);
  if (cairo_surface_status(frame.get()) != CAIRO_STATUS_SUCCESS) {
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
  cairo_surface_flush(frame.get());
  return drawn;
}

cairo_status_t write_to_file(void* closure, const unsigned char* data, unsigned int length) {
  return std::fwrite(data, 1, length, static_cast<std::FILE*>(closure)) == length
             ? CAIRO_STATUS_SUCCESS
             : CAIRO_STATUS_WRITE_ERROR;
}

bool valid(const uint32_t ids[8], int width, int height) {
  if (ids != nullptr && width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide)
    return true;
  errno = EINVAL;
  return false;
}

}  // namespace

extern "C" CAMSIM_API int camsim_compose(const uint32_t ids[8], int width, int height,
                                         const char* png_path) {
  if (png_path == nullptr || !valid(ids, width, height)) {
    errno = EINVAL;
    return -1;
  }
  std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height);
  const int drawn = compose(ids, width, height, pixels.data());
  if (drawn < 0) return -1;
  Surface frame = wrap(pixels.data(), width, height);
  // Opened here, not by cairo, so that a failure keeps the system's reason
  // (a missing directory, no permission, a full disk) in errno.
  std::FILE* file = std::fopen(png_path, "wb");
  if (file == nullptr) return -1;
  errno = 0;
  const cairo_status_t status = cairo_surface_write_to_png_stream(frame.get(), write_to_file, file);
  const int write_error = errno;
  if (std::fclose(file) != 0 || status != CAIRO_STATUS_SUCCESS) {
    errno = write_error != 0 ? write_error : (errno != 0 ? errno : EIO);
    return -1;
  }
  return drawn;
}

extern "C" CAMSIM_API int camsim_compose_argb(const uint32_t ids[8], int width, int height,
                                              uint32_t* pixels) {
  if (pixels == nullptr || !valid(ids, width, height)) {
    errno = EINVAL;
    return -1;
  }
  return compose(ids, width, height, pixels);
}
