// The render context: font set-up, the glyph cache and sized buffers.
#include <cairo-ft.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "common/log.h"
#include "render.h"

namespace zantrel::render {
namespace {

// The FreeType library, the face and cairo's font face made from it: one set
// per process, opened on first need and kept until the process ends. cairo
// requires the face to outlive every cairo object made from it, and keeps
// font faces cached past their users; a face per context would pile up
// mappings of the font file with every context made. A set that could not be
// opened is not kept: the next rendering tries again (the font file may have
// been out of reach for a moment, as with too many open files).
struct SharedFont {
  FT_Library library = nullptr;
  FT_Face face = nullptr;
  cairo_font_face_t* font_face = nullptr;
};

// The size the face is opened with; cairo sets its own for every scaled font.
constexpr uint32_t kFirstFontSize = 16;

std::mutex font_mutex;
SharedFont font_set;  // complete, or all null
std::atomic<bool> font_opened{false};

bool open_shared_font(uint32_t size) {
  SharedFont font;
  if (FT_Init_FreeType(&font.library) != 0) {
    log_message(LOG_ERR, "libzantrel: Could not start FreeType\n");
    return false;
  }
  if (const FT_Error error = FT_New_Face(font.library, FONT_PATH, 1, &font.face); error != 0) {
    log_message(LOG_ERR, "libzantrel: Could not open the font %s (FreeType error %d)\n", FONT_PATH,
                error);
    FT_Done_FreeType(font.library);
    return false;
  }
  // Only the first size: from here on the face belongs to cairo, which sets
  // the size of every scaled font under its own lock of the face.
  FT_Set_Char_Size(font.face, 0, static_cast<FT_F26Dot6>(size) * 64, 0, 0);
  font.font_face = cairo_ft_font_face_create_for_ft_face(font.face, FT_LOAD_NO_BITMAP);
  if (cairo_font_face_status(font.font_face) != CAIRO_STATUS_SUCCESS) {
    log_message(LOG_ERR, "libzantrel: Could not make a font face of %s: %s\n", FONT_PATH,
                cairo_status_to_string(cairo_font_face_status(font.font_face)));
    cairo_font_face_destroy(font.font_face);
    FT_Done_Face(font.face);
    FT_Done_FreeType(font.library);
    return false;
  }
  font_set = font;
  return true;
}

bool use_shared_font(render_text_context* self, uint32_t size) {
  {
    std::lock_guard guard(font_mutex);
    if (font_set.font_face == nullptr && !open_shared_font(size)) return false;
  }
  font_opened.store(true, std::memory_order_relaxed);
  self->ft_lib = font_set.library;
  self->ft_face = font_set.face;
  self->font_face = font_set.font_face;
  return true;
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

void open_font() {
  std::lock_guard guard(font_mutex);
  if (font_set.font_face == nullptr) open_shared_font(kFirstFontSize);
}

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

bool refresh_font_face(render_text_context* self, uint32_t size, uint8_t text_color,
                       uint8_t outline_color, uint8_t background_color) {
  bool font_changed = false;
  if (self->scaled_font == nullptr || size != self->size) {
    if (self->ft_face == nullptr && !use_shared_font(self, size)) return false;
    if (self->scaled_font != nullptr) cairo_scaled_font_destroy(self->scaled_font);
    self->size = size;
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
  return true;
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
  // GLib ends the process when it runs out of memory, so neither is null.
  auto* context = static_cast<render_text_context*>(g_malloc0(sizeof(render_text_context)));
  context->glyph_cache = g_hash_table_new(g_direct_hash, g_direct_equal);
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
