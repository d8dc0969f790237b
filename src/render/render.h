// Text rendering: the render context with its font and glyph cache, pixel
// packing, and the internal steps the two text renderers share.
#pragma once

#include <cairo.h>
#include <ft2build.h>
#include <glib.h>
#include FT_FREETYPE_H

#include <cstdint>
#include <optional>

#include "common/result.h"
#include "zantrel.h"

// The one font the library draws with; face 1 of the collection is used.
#define FONT_PATH "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc"

namespace zantrel::render {

// How much a renderer may draw in one call, counted in pixels drawn and
// converted: deterministic, so a bounded frame draws the same pictures on
// every machine. A glyph counts at least kGlyphPixels, since outlining it
// costs about as much whatever its size. A glyph is drawn while some
// allowance is left (so one glyph may overshoot it); a glyph met after that
// is not drawn, the render stops with `deferred` set, and the same render
// made again later goes on from the glyphs already cached.
struct WorkBudget {
  static constexpr uint64_t kGlyphPixels = 64 * 64;
  WorkBudget() = default;
  explicit WorkBudget(int64_t allowance) : given(allowance), left(allowance) {}
  int64_t given = INT64_MAX;
  int64_t left = INT64_MAX;
  bool deferred = false;  // set by a render that stopped for want of allowance
  void spend(uint64_t pixels) { left -= static_cast<int64_t>(pixels); }
  void spend_glyph(uint64_t pixels) { spend(pixels > kGlyphPixels ? pixels : kGlyphPixels); }
  bool spent() const { return left <= 0; }
  // Nothing drawn yet in this call, or no bound at all.
  bool untouched() const { return given == INT64_MAX || left == given; }
};

}  // namespace zantrel::render

// One drawn and converted glyph, owned by a context's cache.
struct glyph_cache_entry {
  cairo_text_extents_t extents;
  sized_buffer* image;
  // Kept from an earlier text (see reuse_glyph_cache): the image is used
  // again only if this glyph measures the same where it first appears now.
  bool unconfirmed;
};

struct render_text_context {
  int32_t last_width;  // width of the last multi-line buffer, -1 until then
  uint32_t size;       // em size of scaled_font, 0 until the first refresh
  uint32_t line_height;
  uint32_t ascent;
  uint8_t text_color;
  uint8_t outline_color;
  uint8_t background_color;
  GHashTable* glyph_cache;  // glyph index -> glyph_cache_entry*
  cairo_scaled_font_t* scaled_font;
  int32_t max_x_advance;
  cairo_surface_t* surface;  // 1x1, for measuring only
  cairo_t* cr;
  // The process's one FreeType library and face and cairo's font face made
  // from them, borrowed on the first refresh; the context never frees them.
  FT_Library ft_lib;
  FT_Face ft_face;
  overlay_format format;
  cairo_font_face_t* font_face;
  // The allowance of the call drawing with this context, or null for none.
  zantrel::render::WorkBudget* budget;
};

namespace zantrel::render {

// How pixels of a packed format lie in 32-bit words.
struct Packing {
  uint32_t bits;  // bits per pixel
  uint32_t pixels_per_word;
  uint32_t mask;
};
// Formats 7, 9 and 3; nothing for any other.
std::optional<Packing> packing(overlay_format format);
// Rendered widths are whole 16-pixel groups: a row is whole words in every
// format.
inline uint32_t round_up_16(uint32_t value) { return (value + 15u) & ~15u; }
// Words in a row of width pixels (width a multiple of 16).
inline uint32_t row_words(uint32_t width, const Packing& p) { return width / p.pixels_per_word; }

// Opens the process's font now, if it is not open yet, so that the first
// text drawn does not pay for reading it (a failure is logged, and the
// first rendering tries again).
void open_font();
// Whether this process has opened its font yet (it never closes it).
bool shared_font_opened();

// False (logged) when the font cannot be opened.
bool refresh_font_face(render_text_context* self, uint32_t size, uint8_t text_color,
                       uint8_t outline_color, uint8_t background_color);
void empty_glyph_cache(render_text_context* self);
// Prepares a context for drawing other texts as a fresh context would, but
// keeping its glyph images where they come out the same: the extents of a
// glyph depend on where in its line it was first measured, so a kept image
// serves only once the glyph measures the same in the new text.
void reuse_glyph_cache(render_text_context* self);
void sized_buffer_free(sized_buffer* buffer);
void free_glyph_cache_entry(gpointer key, gpointer value, gpointer user_data);

// pixels: a flushed ARGB32 surface of width x height whose rows are
// stride_bytes apart. A new heap record, or null.
sized_buffer* convert_glyph_surface(const uint8_t* pixels, uint32_t width, uint32_t height,
                                    uint32_t stride_bytes, overlay_format format);
int blit_sized_buffer(sized_buffer* destination, const sized_buffer* source, uint32_t x,
                      uint32_t y);

// The glyphs of a UTF-8 string, freed with the run.
class GlyphRun {
 public:
  GlyphRun(render_text_context* context, const char* text);
  ~GlyphRun() { cairo_glyph_free(glyphs_); }
  GlyphRun(const GlyphRun&) = delete;
  GlyphRun& operator=(const GlyphRun&) = delete;
  const cairo_glyph_t* begin() const { return glyphs_; }
  const cairo_glyph_t* end() const { return glyphs_ + count_; }
  int size() const { return count_; }

 private:
  cairo_glyph_t* glyphs_ = nullptr;
  int count_ = 0;
};

// The cached entry of a glyph, drawing it on a miss; null when drawing fails.
glyph_cache_entry* cached_glyph(render_text_context* context, const cairo_glyph_t& glyph,
                                uint32_t pad);
glyph_cache_entry* render_glyph(render_text_context* context, const cairo_glyph_t& glyph,
                                uint32_t pad);

}  // namespace zantrel::render
