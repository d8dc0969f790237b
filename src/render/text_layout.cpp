// Line splitting and the two text renderers: multi-line text sized by its
// content, and the legacy band as wide as the stream.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "common/log.h"
#include "render.h"

namespace zantrel::render {
namespace {

constexpr int kMaxLines = 512;

// Buffers larger than this are refused rather than wrapping the 32-bit byte
// count; a whole 4K frame of 32-bit pixels is far below it.
constexpr uint64_t kMaxBufferBytes = 1u << 30;

struct TextMetrics {
  uint32_t em_size;
  uint32_t pad;  // margin for the outline, and the unit of the text's margins
};

// A negative size draws as size 0: as an unsigned em size it would ask cairo
// for a font four billion pixels high, which it fails to make and leaks.
TextMetrics metrics(int size) {
  const auto em = static_cast<int32_t>(static_cast<double>(std::max(size, 0)) * 0.7);
  const auto em_size = static_cast<uint32_t>(em);
  return {em_size, static_cast<uint32_t>(std::ceil(em_size * 0.03))};
}

// A record with its geometry set and data allocated (cleared or not), or a
// record with null data when the buffer is too large or memory is short.
sized_buffer make_buffer(uint32_t width, uint32_t rows, overlay_format format, bool clear) {
  sized_buffer buffer{};
  const auto pack = packing(format);
  const uint64_t bytes = uint64_t{width} / pack->pixels_per_word * rows * 4u;
  if (bytes > kMaxBufferBytes) return buffer;
  buffer.width = width;
  buffer.height = rows;
  buffer.rows = rows;
  buffer.stride = row_words(width, *pack);
  buffer.format = format;
  const size_t allocated = bytes == 0 ? 1 : bytes;
  buffer.data = static_cast<uint32_t*>(clear ? calloc(1, allocated) : malloc(allocated));
  if (buffer.data == nullptr) return sized_buffer{};
  return buffer;
}

sized_buffer failed(sized_buffer& buffer) {
  free(buffer.data);
  return sized_buffer{};
}

// Copies the glyphs of one line starting at the pen position; a glyph that
// could not be drawn is left out together with its advance.
void draw_line(sized_buffer& result, const std::vector<glyph_cache_entry*>& entries, uint32_t pad,
               uint32_t baseline) {
  double pen = 2.0 * pad;
  for (const glyph_cache_entry* entry : entries) {
    if (entry == nullptr) continue;
    const auto column = static_cast<int64_t>(entry->extents.x_bearing) + static_cast<int64_t>(pen);
    const auto row = static_cast<int64_t>(entry->extents.y_bearing) + baseline;
    // A negative position wraps far beyond the buffer and is not drawn.
    blit_sized_buffer(&result, entry->image, static_cast<uint32_t>(column),
                      static_cast<uint32_t>(row));
    pen += entry->extents.x_advance;
  }
}

}  // namespace
}  // namespace zantrel::render

using namespace zantrel::render;

extern "C" {

int split_into_lines(char*** lines, int* count, const char* text) {
  if (text == nullptr) {
    if (count != nullptr) *count = -1;
    return -1;
  }
  if (lines == nullptr || count == nullptr) return -1;
  int newlines = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\n' && ++newlines == kMaxLines) return -2;
  }
  const int total = newlines + 1;
  auto** array = static_cast<char**>(calloc(static_cast<size_t>(total), sizeof(char*)));
  if (array == nullptr) return -1;
  const char* start = text;
  for (int i = 0; i < total; ++i) {
    const char* end = std::strchr(start, '\n');
    const size_t length = end != nullptr ? static_cast<size_t>(end - start) : std::strlen(start);
    array[i] = static_cast<char*>(malloc(length + 1));
    if (array[i] == nullptr) {
      for (int j = 0; j < i; ++j) free(array[j]);
      free(array);
      return -1;
    }
    std::memcpy(array[i], start, length);
    array[i][length] = '\0';
    start += length + 1;
  }
  *lines = array;
  *count = total;
  return 0;
}

static sized_buffer multiline_unguarded(render_text_context* context, char* const* lines, int count,
                                        overlay_color text_color, overlay_color outline_color,
                                        overlay_color background_color, int size) {
  if (context == nullptr || lines == nullptr || count < 1 || count > kMaxLines) return {};
  const TextMetrics m = metrics(size);
  if (!refresh_font_face(context, m.em_size, static_cast<uint8_t>(text_color),
                         static_cast<uint8_t>(outline_color),
                         static_cast<uint8_t>(background_color))) {
    return {};
  }

  // Measure every line first so that the output is allocated once.
  std::vector<std::vector<glyph_cache_entry*>> line_entries(static_cast<size_t>(count));
  uint32_t text_width = 0;
  for (int i = 0; i < count; ++i) {
    auto width = static_cast<int32_t>(4 * m.pad);
    const GlyphRun run(context, lines[i] != nullptr ? lines[i] : "");
    auto& entries = line_entries[static_cast<size_t>(i)];
    entries.reserve(static_cast<size_t>(run.size()));
    for (const cairo_glyph_t& glyph : run) {
      glyph_cache_entry* entry = cached_glyph(context, glyph, m.pad);
      if (entry == nullptr) return {};  // a text with a glyph missing is not the text
      width = static_cast<int32_t>(width + entry->extents.x_advance);
      entries.push_back(entry);
    }
    text_width = std::max(text_width, static_cast<uint32_t>(width));
  }
  text_width = round_up_16(text_width);

  uint32_t height = context->line_height * static_cast<uint32_t>(count) + 4 * m.pad;
  height += height & 1u;

  // A running clock keeps its width through small changes; the buffer grows
  // at once but shrinks only by at least the widest advance of the font.
  uint32_t width = text_width;
  const int64_t shrink = int64_t{context->last_width} - text_width;
  if (context->last_width >= 0 && shrink > 0 && shrink < context->max_x_advance) {
    width = static_cast<uint32_t>(context->last_width);
  } else {
    context->last_width = static_cast<int32_t>(text_width);
  }

  sized_buffer result = make_buffer(width, height, context->format, true);
  if (result.data == nullptr) return {};
  result.content_width = text_width;
  result.content_height = height;
  if (set_background(&result, background_color, static_cast<int32_t>(height),
                     OVERLAY_COLOR_TRANSPARENT, 0) != 0) {
    return failed(result);
  }
  for (int i = 0; i < count; ++i) {
    const uint32_t baseline =
        m.pad + context->ascent + static_cast<uint32_t>(i) * context->line_height;
    draw_line(result, line_entries[static_cast<size_t>(i)], m.pad, baseline);
  }
  return result;
}

static sized_buffer legacy_unguarded(render_text_context* context, const char* text,
                                     overlay_color text_color, overlay_color outline_color,
                                     overlay_color background_color, overlay_color extra_color,
                                     int size, uint32_t width, int extra_rows) {
  if (context == nullptr || text == nullptr) return {};
  const TextMetrics m = metrics(size);
  if (!refresh_font_face(context, m.em_size, static_cast<uint8_t>(text_color),
                         static_cast<uint8_t>(outline_color),
                         static_cast<uint8_t>(background_color))) {
    return {};
  }
  const int64_t rows = int64_t{size} + extra_rows;
  if (rows < 0 || width > UINT32_MAX - 15) return {};
  sized_buffer result =
      make_buffer(round_up_16(width), static_cast<uint32_t>(rows), context->format, false);
  if (result.data == nullptr) return {};
  result.content_width = width;
  result.content_height = static_cast<uint32_t>(size);

  const GlyphRun run(context, text);
  if (set_background(&result, background_color, size, extra_color, extra_rows) != 0) {
    return failed(result);
  }
  std::vector<glyph_cache_entry*> entries;
  entries.reserve(static_cast<size_t>(run.size()));
  for (const cairo_glyph_t& glyph : run) {
    glyph_cache_entry* entry = cached_glyph(context, glyph, m.pad);
    if (entry == nullptr) return failed(result);  // a text with a glyph missing is not the text
    entries.push_back(entry);
  }
  draw_line(result, entries, m.pad, m.pad + context->ascent);
  return result;
}

// No C++ exception (std::bad_alloc from the glyph lists) crosses the C
// interface: it is a failed rendering.
sized_buffer render_text_buffer_multiline(render_text_context* context, char* const* lines,
                                          int count, overlay_color text_color,
                                          overlay_color outline_color,
                                          overlay_color background_color, int size) {
  try {
    return multiline_unguarded(context, lines, count, text_color, outline_color, background_color,
                               size);
  } catch (const std::exception& error) {
    zantrel::log_message(LOG_ERR, "libzantrel: %s: internal error: %s\n", __func__, error.what());
    return {};
  }
}

sized_buffer render_text_buffer_legacy(render_text_context* context, const char* text,
                                       overlay_color text_color, overlay_color outline_color,
                                       overlay_color background_color, overlay_color extra_color,
                                       int size, uint32_t width, int extra_rows) {
  try {
    return legacy_unguarded(context, text, text_color, outline_color, background_color, extra_color,
                            size, width, extra_rows);
  } catch (const std::exception& error) {
    zantrel::log_message(LOG_ERR, "libzantrel: %s: internal error: %s\n", __func__, error.what());
    return {};
  }
}

}  // extern "C"
