// Glyphs: UTF-8 to glyph indices, and drawing one glyph into the cache.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "render.h"
#include "zantrel-base/cairo_ptr.h"

namespace zantrel::render {

GlyphRun::GlyphRun(render_text_context* context, const char* text) {
  // A string cairo cannot convert (invalid UTF-8) simply has no glyphs.
  cairo_scaled_font_text_to_glyphs(context->scaled_font, 0, 0, text, -1, &glyphs_, &count_, nullptr,
                                   nullptr, nullptr);
  if (glyphs_ == nullptr) count_ = 0;
}

glyph_cache_entry* cached_glyph(render_text_context* context, const cairo_glyph_t& glyph,
                                uint32_t pad) {
  auto* entry = static_cast<glyph_cache_entry*>(
      g_hash_table_lookup(context->glyph_cache, GUINT_TO_POINTER(glyph.index)));
  if (entry != nullptr && entry->unconfirmed) {
    cairo_text_extents_t extents;
    cairo_glyph_extents(context->cr, &glyph, 1, &extents);
    // Both filled by cairo_glyph_extents: equal bytes mean the same extents.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    if (std::memcmp(&extents, &entry->extents, sizeof extents) == 0) {
      entry->unconfirmed = false;
    } else {
      g_hash_table_remove(context->glyph_cache, GUINT_TO_POINTER(glyph.index));
      free_glyph_cache_entry(nullptr, entry, nullptr);
      entry = nullptr;
    }
  }
  if (entry != nullptr) return entry;
  if (context->budget != nullptr && context->budget->spent()) {
    context->budget->deferred = true;
    return nullptr;
  }
  return render_glyph(context, glyph, pad);
}

void reuse_glyph_cache(render_text_context* self) {
  self->last_width = -1;
  g_hash_table_foreach(
      self->glyph_cache,
      [](gpointer, gpointer value, gpointer) {
        static_cast<glyph_cache_entry*>(value)->unconfirmed = true;
      },
      nullptr);
}

glyph_cache_entry* render_glyph(render_text_context* context, const cairo_glyph_t& glyph,
                                uint32_t pad) {
  cairo_text_extents_t extents;
  cairo_glyph_extents(context->cr, &glyph, 1, &extents);

  const auto width = round_up_16(static_cast<uint32_t>(extents.width + 2.0 * pad));
  const auto height = static_cast<uint32_t>(extents.height + 2.0 * pad);
  CairoSurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width),
                                                     static_cast<int>(height)));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    log_message(LOG_ERR, "libzantrel: Internal Cairo error while creating image surface\n");
    return nullptr;
  }
  CairoPtr cr(cairo_create(surface.get()));
  if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) {
    log_message(LOG_ERR, "libzantrel: Internal Cairo error while creating drawing context\n");
    return nullptr;
  }

  set_source_color(cr.get(), context->background_color);
  cairo_paint(cr.get());
  cairo_set_scaled_font(cr.get(), context->scaled_font);
  cairo_set_font_size(cr.get(), context->size);
  cairo_glyph_t placed = glyph;
  placed.x = pad - extents.x_bearing;
  placed.y = pad - extents.y_bearing;
  // Stroke first, then fill over its inner half: the outline shows only
  // outside the glyph.
  cairo_set_line_width(cr.get(), 0.06 * context->size);
  cairo_set_line_join(cr.get(), CAIRO_LINE_JOIN_BEVEL);
  set_source_color(cr.get(), context->outline_color);
  cairo_glyph_path(cr.get(), &placed, 1);
  cairo_stroke_preserve(cr.get());
  set_source_color(cr.get(), context->text_color);
  cairo_fill(cr.get());

  auto* entry = g_try_new0(glyph_cache_entry, 1);
  if (entry == nullptr) {
    log_message(LOG_ERR, "libzantrel: Out of Memory.\n");
    return nullptr;
  }
  cairo_surface_flush(surface.get());
  entry->image = convert_glyph_surface(
      cairo_image_surface_get_data(surface.get()), width, height,
      static_cast<uint32_t>(cairo_image_surface_get_stride(surface.get())), context->format);
  if (entry->image == nullptr) {
    g_free(entry);
    return nullptr;
  }
  entry->extents = extents;
  if (context->budget != nullptr) context->budget->spend_glyph(uint64_t{width} * height);
  g_hash_table_insert(context->glyph_cache, GUINT_TO_POINTER(glyph.index), entry);
  return entry;
}

}  // namespace zantrel::render
