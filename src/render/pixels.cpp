// Pixel values and packed words: colour codes, nearest palette colour, glyph
// conversion, background fill and copying at any pixel position.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "render.h"

namespace zantrel::render {
namespace {

const uint32_t* default_palette() {
  const uint32_t* colors = nullptr;
  int first = 0;
  palette_get_default(&colors, &first);
  return colors;
}

int channel(uint32_t color, int shift) { return static_cast<int>((color >> shift) & 0xFFu); }

uint32_t square(int difference) { return static_cast<uint32_t>(difference * difference); }

// The fill word of a colour code: its palette colour or index repeated over
// the word. An invalid code gives index -1, whose low bits are all ones.
uint32_t fill_word(overlay_color color, overlay_format format) {
  const int index = palette_get_color_index(color);
  switch (format) {
    case OVERLAY_FORMAT_ARGB32:
      return static_cast<uint32_t>(palette_get_color(index));
    case OVERLAY_FORMAT_PALETTE_8BIT:
      return (static_cast<uint32_t>(index) & 0xFFu) * 0x01010101u;
    default:
      return (static_cast<uint32_t>(index) & 0xFu) * 0x11111111u;
  }
}

void fill_rows(sized_buffer* buffer, uint32_t first_row, int32_t rows, uint32_t word) {
  if (rows <= 0) return;
  uint32_t* start = buffer->data + static_cast<size_t>(first_row) * buffer->stride;
  std::fill_n(start, static_cast<size_t>(rows) * buffer->stride, word);
}

// The nearest palette colour of each distinct pixel colour, looked up once
// per thread: glyphs have a few dozen colours over their thousands of
// pixels, mostly the same ones, and the search over 16 entries costs hundreds
// of instructions a pixel. Kept while the palette searched stays the same.
class NearestColors {
 public:
  static NearestColors& of_thread(const uint32_t* palette) {
    thread_local NearestColors colors;
    if (colors.palette_ != palette) colors = NearestColors(palette);
    return colors;
  }
  uint32_t index(uint32_t color) {
    Place& place = places_[(color * 0x9E3779B1u) >> (32 - kBits)];
    if (!place.used || place.color != color) {
      place = {color, static_cast<uint32_t>(get_palette_value(color, palette_, 16, 0)), true};
    }
    return place.index;
  }

 private:
  NearestColors() = default;
  explicit NearestColors(const uint32_t* palette) : palette_(palette) {}
  static constexpr int kBits = 9;
  struct Place {
    uint32_t color;
    uint32_t index;
    bool used;
  };
  const uint32_t* palette_ = nullptr;
  Place places_[1u << kBits] = {};
};

}  // namespace

sized_buffer* convert_glyph_surface(const uint8_t* pixels, uint32_t width, uint32_t height,
                                    uint32_t stride_bytes, overlay_format format) {
  const auto pack = packing(format);
  auto* result = static_cast<sized_buffer*>(calloc(1, sizeof(sized_buffer)));
  if (result != nullptr && pack) {
    result->width = width;
    result->height = height;
    result->rows = height;
    result->format = format;
    result->stride = row_words(width, *pack);
    // An empty glyph (a space at a tiny size) still gets a valid pointer.
    result->data = static_cast<uint32_t*>(malloc(std::max(sized_buffer_datalen(result), 1u)));
  }
  if (result == nullptr || result->data == nullptr) {
    log_message(LOG_ERR, "libzantrel: Getting cairo surface data failed.\n");
    free(result);
    return nullptr;
  }
  NearestColors& nearest = NearestColors::of_thread(default_palette());
  uint32_t* out = result->data;
  for (uint32_t row = 0; row < height; ++row) {
    const auto* in =
        reinterpret_cast<const uint32_t*>(pixels + static_cast<size_t>(row) * stride_bytes);
    if (pack->pixels_per_word == 1) {
      std::memcpy(out, in, width * sizeof(uint32_t));
      out += width;
      continue;
    }
    for (uint32_t word = 0; word < result->stride; ++word) {
      uint32_t packed = 0;
      for (uint32_t k = 0; k < pack->pixels_per_word; ++k) {
        const uint32_t index = nearest.index(*in++);
        packed += (index & pack->mask) << (k * pack->bits);
      }
      *out++ = packed;
    }
  }
  return result;
}

int blit_sized_buffer(sized_buffer* destination, const sized_buffer* source, uint32_t x,
                      uint32_t y) {
  if (destination->format != source->format) return -1;
  const auto pack = packing(destination->format);
  if (!pack) return -1;
  const uint32_t column = x / pack->pixels_per_word;
  const uint32_t shift = (x % pack->pixels_per_word) * pack->bits;
  if (destination->stride < column) return -1;
  if (source->rows == 0 || y >= destination->rows) return 0;

  const uint32_t rows = std::min(source->rows, destination->rows - y);
  const uint32_t words = std::min(source->stride, destination->stride - column);
  const uint32_t low_mask = shift == 0 ? 0 : (1u << shift) - 1;
  for (uint32_t r = 0; r < rows; ++r) {
    const uint32_t* in = source->data + static_cast<size_t>(r) * source->stride;
    uint32_t* out = destination->data + static_cast<size_t>(y + r) * destination->stride + column;
    if (shift == 0) {
      std::memcpy(out, in, words * sizeof(uint32_t));
      continue;
    }
    // Each source word straddles two destination words; the pixels left of x
    // in the first and right of the row in the last stay as they were.
    const bool last_spills = column + words < destination->stride;
    for (uint32_t j = 0; j < words; ++j) {
      const uint32_t w = in[j];
      out[j] = (w << shift) | (out[j] & low_mask);
      if (j + 1 < words || last_spills) out[j + 1] = (w >> (32 - shift)) | (out[j + 1] & ~low_mask);
    }
  }
  return 0;
}

}  // namespace zantrel::render

using namespace zantrel::render;

extern "C" {

void set_source_color(struct _cairo* cr, overlay_color color) {
  const auto argb = static_cast<uint32_t>(palette_get_color(palette_get_color_index(color)));
  auto unit = [argb](int shift) {
    return static_cast<double>(static_cast<float>(channel(argb, shift)) / 255.0f);
  };
  cairo_set_source_rgba(cr, unit(16), unit(8), unit(0), unit(24));
}

int32_t get_palette_value(uint32_t color, const uint32_t* palette, int32_t end, int32_t start) {
  if (start >= end || palette == nullptr) return -1;
  int32_t best = -1;
  uint32_t best_distance = 0;
  for (int32_t i = start; i < end; ++i) {
    const uint32_t entry = palette[i];
    const uint32_t distance = square(channel(color, 8) - channel(entry, 8)) +
                              square(channel(color, 16) - channel(entry, 16)) +
                              square(channel(color, 0) - channel(entry, 0)) +
                              256u * square(channel(color, 24) - channel(entry, 24));
    if (best < 0 || distance < best_distance) {
      best = i;
      best_distance = distance;
    }
  }
  return best;
}

uint32_t pixel_distance(uint32_t a, uint32_t b) {
  return square(channel(a, 16) - channel(b, 16)) + square(channel(a, 8) - channel(b, 8)) +
         square(channel(a, 0) - channel(b, 0));
}

int set_background(sized_buffer* buffer, overlay_color color1, int32_t rows1, overlay_color color2,
                   int32_t rows2) {
  if (static_cast<int64_t>(rows1) + rows2 != static_cast<int64_t>(buffer->rows)) {
    zantrel::log_message(LOG_ERR, "libzantrel: not matching destination heights\n");
    return -2;
  }
  if (!packing(buffer->format)) {
    zantrel::log_message(LOG_WARNING,
                         "libzantrel: set_background to sized buffer of unexpected format %d!\n\n",
                         static_cast<int>(buffer->format));
    return -1;
  }
  const uint32_t first = fill_word(color1, buffer->format);
  const uint32_t second = fill_word(color2, buffer->format);
  // Only the rows that exist are filled: a negative count fills nothing, and
  // the other part then cannot run past the buffer's rows.
  const int32_t top = std::clamp<int32_t>(rows1, 0, static_cast<int32_t>(buffer->rows));
  fill_rows(buffer, 0, top, first);
  fill_rows(buffer, static_cast<uint32_t>(top),
            std::min<int32_t>(rows2, static_cast<int32_t>(buffer->rows) - top), second);
  return 0;
}

int utils_compare_overlay_text_color_and_size(const render_text_context* context,
                                              const overlay_text* text, float scale) {
  if (text->text_color != context->text_color ||
      text->background_color != context->background_color ||
      text->outline_color != context->outline_color) {
    return 1;
  }
  const float scaled = static_cast<float>(text->font_size) * scale;
  const double em = std::trunc(static_cast<double>(scaled) * 0.7);
  return em == static_cast<double>(context->size) ? 0 : 1;
}

void print_image(void) {}

}  // extern "C"
