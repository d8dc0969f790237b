// The render context: font set-up, the glyph cache and sized buffers.
#include <cairo-ft.h>

#include <atomic>
#include <cstdlib>

#include "common/log.h"
#include "render.h"

namespace zantrel::render {
namespace {

// Stops the process the way a failed GLib assertion does; the font is part
// of the firmware, so a missing one is a broken image, not a runtime error.
[[noreturn]] void font_assertion_failed(int line, const char* expression) {
  g_assertion_message_expr(nullptr, "overlay_text_rendering.c", line, "refresh_font_face",
                           expression);
  abort();  // not reached: the assertion report aborts
}

// The FreeType library, the face and cairo's font face made from it: one set
// per process, opened on first need and kept until the process ends. cairo
// requires the face to outlive every cairo object made from it, and keeps
// font faces cached past their users; a face per context would pile up
// mappings of the font file with every context made.
struct SharedFont {
  FT_Library library = nullptr;
  FT_Face face = nullptr;
  cairo_font_face_t* font_face = nullptr;
};

SharedFont open_shared_font(uint32_t size) {
  SharedFont font;
  if (FT_Init_FreeType(&font.library) != 0) {
    font_assertion_failed(__LINE__, "FT_Init_FreeType(&self->ft_lib) == 0");
  }
  if (FT_New_Face(font.library, FONT_PATH, 1, &font.face) != 0) {
    font_assertion_failed(__LINE__, "FT_New_Face(self->ft_lib, FONT_PATH, 1, &self->ft_face) == 0");
  }
  // Only the first size: from here on the face belongs to cairo, which sets
  // the size of every scaled font under its own lock of the face.
  FT_Set_Char_Size(font.face, 0, static_cast<FT_F26Dot6>(size) * 64, 0, 0);
  font.font_face = cairo_ft_font_face_create_for_ft_face(font.face, FT_LOAD_NO_BITMAP);
  return font;
}

// A function-local static: made once even when several threads ask first.
const SharedFont& shared_font(uint32_t size) {
  static const SharedFont font = open_shared_font(size);
  return font;
}

std::atomic<bool> font_opened{false};

void use_shared_font(render_text_context* self, uint32_t size) {
  const SharedFont& font = shared_font(size);
  font_opened.store(true, std::memory_order_relaxed);
  self->ft_lib = font.library;
  self->ft_face = font.face;
  self->font_face = font.font_face;
}

void build_scaled_font(render_text_context* self) {
  cairo_font_options_t* options = cairo_font_options_create();
  cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_NONE);
  cairo_matrix_t font_matrix;
  cairo_matrix_init_scale(&font_matrix, self->size, self->size);
  cairo_matrix_t identity;
  cairo_matrix_init_identity(&identity);
  self->scaled_font = cairo_scaled_font_create(self->font_face, &font_matrix, &identity, options);
  cairo_set_scaled_font(self->cr, self->scaled_font);

  cairo_font_extents_t extents{};
  cairo_scaled_font_extents(self->scaled_font, &extents);
  self->max_x_advance = static_cast<int32_t>(extents.max_x_advance);
  self->line_height = static_cast<uint32_t>(extents.height);
  self->ascent = static_cast<uint32_t>(extents.ascent);
  cairo_font_options_destroy(options);
}

}  // namespace

bool shared_font_opened() { return font_opened.load(std::memory_order_relaxed); }

std::optional<Packing> packing(overlay_format format) {
  switch (format) {
    case OVERLAY_FORMAT_ARGB32:
      return Packing{32, 1, 0xFFFFFFFFu};
    case OVERLAY_FORMAT_PALETTE_8BIT:
      return Packing{8, 4, 0xFFu};
    case OVERLAY_FORMAT_PALETTE_4BIT:
      return Packing{4, 8, 0xFu};
    default:
      return std::nullopt;
  }
}

void refresh_font_face(render_text_context* self, uint32_t size, uint8_t text_color,
                       uint8_t outline_color, uint8_t background_color) {
  bool font_changed = false;
  if (self->scaled_font == nullptr || size != self->size) {
    if (self->scaled_font != nullptr) cairo_scaled_font_destroy(self->scaled_font);
    self->size = size;
    if (self->ft_face == nullptr) use_shared_font(self, size);
    build_scaled_font(self);
    font_changed = true;
  }
  if (text_color != self->text_color || outline_color != self->outline_color ||
      background_color != self->background_color) {
    self->text_color = text_color;
    self->outline_color = outline_color;
    self->background_color = background_color;
    empty_glyph_cache(self);
  } else if (font_changed) {
    empty_glyph_cache(self);
  }
}

void empty_glyph_cache(render_text_context* self) {
  g_hash_table_foreach(self->glyph_cache, free_glyph_cache_entry, nullptr);
  g_hash_table_remove_all(self->glyph_cache);
}

void sized_buffer_free(sized_buffer* buffer) {
  if (buffer == nullptr) return;
  free(buffer->data);
  free(buffer);
}

void free_glyph_cache_entry(gpointer, gpointer value, gpointer) {
  auto* entry = static_cast<glyph_cache_entry*>(value);
  if (entry == nullptr) return;
  sized_buffer_free(entry->image);
  g_free(entry);
}

}  // namespace zantrel::render

using namespace zantrel::render;

extern "C" {

render_text_context* render_text_init(overlay_format format) {
  auto* context = static_cast<render_text_context*>(g_malloc0(sizeof(render_text_context)));
  if (context == nullptr) return nullptr;
  context->glyph_cache = g_hash_table_new(g_direct_hash, g_direct_equal);
  if (context->glyph_cache == nullptr) {
    g_free(context);
    return nullptr;
  }
  auto release = [context] {
    if (context->surface != nullptr) cairo_surface_destroy(context->surface);
    g_hash_table_destroy(context->glyph_cache);
    g_free(context);
    return nullptr;
  };
  if (!packing(format)) {
    zantrel::log_message(LOG_ERR,
                         "libzantrel: overlay_format %d not supported in render_text_init\n\n",
                         static_cast<int>(format));
    return release();
  }
  context->format = format;
  context->surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);
  if (cairo_surface_status(context->surface) != CAIRO_STATUS_SUCCESS) return release();
  context->cr = cairo_create(context->surface);
  if (cairo_status(context->cr) != CAIRO_STATUS_SUCCESS) {
    cairo_destroy(context->cr);
    return release();
  }
  context->last_width = -1;
  return context;
}

void render_text_destroy(render_text_context* context) {
  if (context == nullptr) return;
  empty_glyph_cache(context);
  g_hash_table_destroy(context->glyph_cache);
  // The font is the process's, not the context's: only the scaled font goes.
  if (context->scaled_font != nullptr) cairo_scaled_font_destroy(context->scaled_font);
  if (context->cr != nullptr) cairo_destroy(context->cr);
  if (context->surface != nullptr) cairo_surface_destroy(context->surface);
  g_free(context);
}

uint32_t sized_buffer_datalen(const sized_buffer* buffer) {
  return buffer->stride * buffer->rows * 4u;
}

}  // extern "C"
