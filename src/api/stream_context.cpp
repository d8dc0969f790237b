// The encoder's side: one context per stream, and once a frame the ids of the
// overlays this stream shows written into the frame's encode request.
//
// The tables are gathered again only when a change counter moved; overlays
// that look different on this stream (legacy and scaled texts, scalable
// images) get hardware copies that the context owns, and modifiable texts
// are drawn for the frame's time.
#include <glib.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "api.h"
#include "common/log.h"
#include "render/render.h"
#include "text_overlay.h"

namespace zantrel::api {
namespace {

constexpr int kPositions = OVERLAY_SET_PLACES;

// A slot whose overlay this stream shows through a copy of its own.
bool needs_copy(const overlay_table_entry& slot, uint32_t height) {
  if (slot.in_use == 0) return false;
  if (slot.data.type == OVERLAY_TYPE_SCALABLE_IMAGE) return true;
  if (slot.data.type != OVERLAY_TYPE_TEXT) return false;
  const overlay_text& t = slot.data.description.text;
  return t.overlay.legacy != 0 || (t.scalable != 0 && height != 1080);
}

uint32_t positions_of(int32_t type, const overlay_caps& caps) {
  switch (type) {
    case OVERLAY_TYPE_TEXT:
    case OVERLAY_TYPE_MODIFIABLE_TEXT:
      return caps.slots_text;
    case OVERLAY_TYPE_IMAGE:
    case OVERLAY_TYPE_SCALABLE_IMAGE:
      return caps.slots_image;
    default:
      return caps.slots_plain;
  }
}

template <typename T>
T* mapped_or_null(T* mapping) {
  return mapping == MAP_FAILED ? nullptr : mapping;
}

// The renderers of the text contexts that a gathering ends, by handle. The
// text contexts made again for the same handles in that call take them over,
// so a clock that stays on the stream keeps its glyph cache and is not drawn
// glyph by glyph after every change of the tables; the rest are destroyed.
class CarriedRenderers {
 public:
  CarriedRenderers() = default;
  CarriedRenderers(const CarriedRenderers&) = delete;
  CarriedRenderers& operator=(const CarriedRenderers&) = delete;
  ~CarriedRenderers() {
    for (size_t i = 0; i < count_; ++i) render_text_destroy(carried_[i].render);
  }

  void take_from(GHashTable* text_contexts) {
    if (text_contexts == nullptr) return;
    GHashTableIter iter;
    gpointer key = nullptr;
    gpointer value = nullptr;
    g_hash_table_iter_init(&iter, text_contexts);
    while (count_ < std::size(carried_) && g_hash_table_iter_next(&iter, &key, &value)) {
      auto* text = static_cast<modifiable_text_context*>(value);
      carried_[count_++] = {GPOINTER_TO_INT(key), text->render};
      text->render = nullptr;
    }
  }

  void give_to(modifiable_text_context* text, int handle) {
    for (size_t i = 0; i < count_; ++i) {
      if (carried_[i].handle != handle || carried_[i].render == nullptr) continue;
      render_text_destroy(text->render);
      text->render = carried_[i].render;
      carried_[i].render = nullptr;
      // It draws from here on exactly as a fresh renderer would.
      zantrel::render::reuse_glyph_cache(text->render);
      return;
    }
  }

 private:
  struct Carried {
    int handle;
    render_text_context* render;
  };
  Carried carried_[kPositions] = {};
  size_t count_ = 0;
};

// Composition versions are unique within the process, so that a request
// filled by an earlier context of the same stream (made again after a
// resolution change) is never taken as up to date by a new one. A process's
// first composition is 1; 0 is never handed out.
int32_t next_version() {
  static std::atomic<uint32_t> gatherings{0};
  return static_cast<int32_t>(gatherings.fetch_add(1, std::memory_order_relaxed) % INT32_MAX + 1);
}

// Takes the lock and gathers the stream's entries afresh; false when the
// lock cannot be had.
bool gather(overlay_stream_context* context, CarriedRenderers& renderers) {
  if (overlay_table_lock(context->table) != 0) return false;
  context->version = next_version();
  context->table_version = table::read_version(context->table->version);
  if (context->stream_table != nullptr) {
    context->stream_version = table::read_version(context->stream_table->version);
  }
  renderers.take_from(context->text_contexts);
  _clear_osc_local_overlays(context);
  overlay_table_get_entries(context->table, context->stream_table, context->slots, context->handles,
                            context->channel, static_cast<int>(context->stream), context->filter);
  for (int i = 0; i < kPositions; ++i) {
    overlay_table_entry& slot = context->slots[i];
    if (needs_copy(slot, context->height)) slot.data.kernel_id = 0;
  }
  overlay_table_unlock(context->table);
  return true;
}

// Draws a legacy or scaled text for this stream; its id, or 0.
int copy_text(overlay_stream_context* context, overlay_table_entry& slot) {
  render_text_context* render = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
  if (render == nullptr) {
    log_message(LOG_ERR,
                "libzantrel: Failed to create render context for legacy / scaled text overlay\n");
    return 0;
  }
  int id = 0;
  const int rc =
      o_create_text_overlay(render, context, &slot.data.description.text, &slot.data, nullptr, &id);
  render_text_destroy(render);
  if (rc != 0) {
    log_message(LOG_ERR, "libzantrel: Failed to create legacy / scaled text overlay\n");
    return 0;
  }
  return id;
}

// Writes the gathered overlays into the request; true when a modifiable text
// has a position in it.
bool compose(overlay_stream_context* context, overlay_encreq* request, bool gathered,
             CarriedRenderers& renderers) {
  for (int i = 0; i < kPositions; ++i) o_encode_set_overlay_id(request, i, 0);
  overlay_caps caps{};
  o_get_overlay_caps(&caps);
  bool modifiable = false;
  uint32_t p = 0;
  for (int i = 0; i < kPositions && p < kPositions; ++i) {
    overlay_table_entry& slot = context->slots[i];
    if (slot.in_use == 0) continue;
    const uint32_t n = positions_of(slot.data.type, caps);
    if (p + n > kPositions) continue;
    switch (slot.data.type) {
      case OVERLAY_TYPE_MODIFIABLE_TEXT: {
        if (gathered) {
          modifiable_text_context* text =
              o_modifiable_text_context_get(context, context->handles[i]);
          if (text == nullptr) continue;
          renderers.give_to(text, context->handles[i]);
          o_modifiable_text_context_update_count(text, static_cast<int>(p));
        }
        modifiable = true;
        p += n;
        continue;
      }
      case OVERLAY_TYPE_SCALABLE_IMAGE:
        if (gathered) {
          int id = 0;
          if (o_create_scaled_image_overlay_from_ovl_file(&slot.data.description.image, context->fd,
                                                          &id, context->channel, context->width,
                                                          context->height, &slot.data) != 0) {
            continue;
          }
          slot.data.kernel_id = id;
        }
        [[fallthrough]];
      case OVERLAY_TYPE_IMAGE:
        if (slot.data.kernel_id == 0) continue;
        o_encode_set_overlay_id(request, static_cast<int>(p),
                                static_cast<uint32_t>(slot.data.kernel_id));
        p += n;
        continue;
      case OVERLAY_TYPE_TEXT:
        if (gathered && needs_copy(slot, context->height)) {
          const int id = copy_text(context, slot);
          if (id == 0) continue;
          slot.data.kernel_id = id;
        }
        [[fallthrough]];
      default: {
        const bool shown = context->handles[i] > 0 && slot.data.kernel_id > 0;
        o_encode_set_overlay_id(request, static_cast<int>(p),
                                shown ? static_cast<uint32_t>(slot.data.kernel_id) : 0);
        p += n;
      }
    }
  }
  o_force_refresh_overlays(context->fd);
  o_encode_set_version(request, static_cast<uint32_t>(context->version));
  if (gathered) {
    g_hash_table_foreach_remove(context->text_contexts,
                                reinterpret_cast<GHRFunc>(o_remove_unused_modifiable_text_context),
                                context->handles);
  }
  return modifiable;
}

struct TextUpdate {
  bool id_changed = false;
  bool scrolled = false;
};

// Draws each modifiable text for this frame and puts its id at its position.
TextUpdate update_texts(overlay_stream_context* context, overlay_encreq* request,
                        const overlay_expansion_params* params) {
  TextUpdate update;
  GHashTableIter iter;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&iter, context->text_contexts);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    const int handle = GPOINTER_TO_INT(key);
    auto* text = static_cast<modifiable_text_context*>(value);
    overlay_table_entry* slot = nullptr;
    for (int i = 0; i < kPositions && slot == nullptr; ++i) {
      if (context->handles[i] == handle) slot = &context->slots[i];
    }
    if (slot == nullptr) continue;
    const uint32_t id = o_get_modifiable_text_overlay_id(context, text, slot, params);
    if (id < 1) {
      log_message(LOG_ERR, "libzantrel: Could not get modifiable text id\n");
      continue;
    }
    if (o_update_scrolling_text(&slot->data, text, context->width, id) != 0) {
      update.scrolled = true;
    }
    const int q = text->count;
    if (q >= 0 && q < kPositions && o_encode_get_overlay_id(request, q) != id) {
      o_encode_set_overlay_id(request, q, id);
      update.id_changed = true;
    }
  }
  return update;
}

}  // namespace

void _clear_osc_local_overlays(overlay_stream_context* context) {
  if (context == nullptr || context->slots == nullptr) return;
  for (int i = 0; i < kPositions; ++i) {
    overlay_table_entry& slot = context->slots[i];
    if (slot.in_use == 0) continue;
    if (needs_copy(slot, context->height) && slot.data.kernel_id != 0) {
      o_destroy_overlay(context->fd, slot.data.kernel_id);
      slot.data.kernel_id = 0;
    }
    slot.in_use = 0;
  }
  if (context->text_contexts != nullptr) g_hash_table_remove_all(context->text_contexts);
}

}  // namespace zantrel::api

using zantrel::log_message;
using namespace zantrel::api;

extern "C" {

overlay_stream_context* overlay_stream_context_create(int fd, unsigned int channel,
                                                      unsigned int stream, uint32_t /*unused*/,
                                                      uint32_t width, uint32_t height,
                                                      uint32_t filter) {
  auto* context = g_try_new0(overlay_stream_context, 1);
  if (context == nullptr) return nullptr;
  context->slots =
      static_cast<overlay_table_entry*>(calloc(kPositions, sizeof(overlay_table_entry)));
  if (context->slots == nullptr) {
    g_free(context);
    return nullptr;
  }
  context->text_contexts =
      g_hash_table_new_full(nullptr, nullptr, nullptr,
                            reinterpret_cast<GDestroyNotify>(o_modifiable_text_context_destroy));
  if (context->text_contexts == nullptr) {
    free(context->slots);
    g_free(context);
    return nullptr;
  }
  context->fd = fd;
  context->channel = channel;
  context->stream = stream;
  context->width = width;
  context->height = height;
  context->filter = filter;
  context->table = mapped_or_null(overlay_table_map());
  context->stream_table = mapped_or_null(overlay_table_map_stream(static_cast<int>(stream)));
  return context;
}

void overlay_stream_context_destroy(overlay_stream_context* context) {
  if (context == nullptr) return;
  _clear_osc_local_overlays(context);
  g_hash_table_unref(context->text_contexts);
  if (context->table != nullptr) overlay_table_unmap(context->table);
  if (context->stream_table != nullptr) overlay_table_unmap_stream(context->stream_table);
  free(context->slots);
  g_free(context);
}

int overlay_setup_in_encreq(overlay_stream_context* context, overlay_encreq* request,
                            const overlay_expansion_params* params) {
  if (context == nullptr) {
    log_message(LOG_ERR, "libzantrel: Need a valid stream context to setup a encode request\n");
    return -1;
  }
  if (request == nullptr) return 0;
  if (context->table == nullptr) {
    context->table = mapped_or_null(overlay_table_map());
    if (context->table == nullptr) return 0;
  }
  // The change counters are read without the lock: a change seen late is
  // picked up by the next frame.
  bool gathered = false;
  CarriedRenderers renderers;
  const uint32_t table_version = zantrel::table::read_version(context->table->version);
  bool changed = table_version != context->table_version;
  if (!changed) {
    changed =
        context->stream_table != nullptr &&
        zantrel::table::read_version(context->stream_table->version) != context->stream_version;
  } else if (context->stream_table == nullptr) {
    context->stream_table =
        mapped_or_null(overlay_table_map_stream(static_cast<int>(context->stream)));
  }
  if (changed) {
    if (!gather(context, renderers)) return 0;
    gathered = true;
  }

  const bool up_to_date = o_encode_get_version(request) == static_cast<uint32_t>(context->version);
  if (!up_to_date && !compose(context, request, gathered, renderers)) return 0;
  if (context->text_contexts == nullptr || g_hash_table_size(context->text_contexts) == 0) {
    return 0;
  }
  const TextUpdate update = update_texts(context, request, params);
  if (update.scrolled || (update.id_changed && up_to_date)) {
    o_force_refresh_overlays(context->fd);
  }
  return 0;
}

}  // extern "C"
