// Modifiable texts: per stream and text, the text is expanded every frame and
// drawn again only when it, its colours or the size it is drawn at changed;
// scrolling texts
// move a step every frame.
#include <glib.h>

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/log.h"
#include "common/mapping.h"
#include "text_overlay.h"
#include "tokenfill.h"

namespace zantrel::device {
namespace {

constexpr double kScrollFactor = 0.0005;

void expand(char* out, const overlay_text& t, const overlay_expansion_params* params) {
  if (params != nullptr) {
    tokenfill_expand(out, kTextSize, t.text,
                     static_cast<tokenfill_context*>(params->tokenfill_context), params->time);
  } else {
    g_strlcpy(out, t.text, kTextSize);
  }
  out[kTextSize - 1] = '\0';  // a text from shared memory may lack its NUL
}

void forget_buffers(modifiable_text_context& context) {
  for (auto& mapping : context.mappings) {
    if (mapping.address != nullptr) munmap(mapping.address, context.buffer_size);
    mapping = {0, nullptr};
  }
  context.next_mapping = 0;
}

// The kept mapping of one buffer of the context's overlay, made on first use.
unsigned char* kept_buffer(modifiable_text_context& context, int fd, int offset) {
  for (const auto& mapping : context.mappings) {
    if (mapping.address != nullptr && mapping.offset == offset) return mapping.address;
  }
  Mapping fresh(fd, context.buffer_size, PROT_READ | PROT_WRITE, offset);
  if (!fresh) return nullptr;
  auto& place = context.mappings[context.next_mapping];
  context.next_mapping = (context.next_mapping + 1) % std::size(context.mappings);
  if (place.address != nullptr) munmap(place.address, context.buffer_size);
  place = {offset, fresh.release()};
  return place.address;
}

// The overlay shows the text as the record and stream would draw it now.
bool shows_look_of(const modifiable_text_context& context, const overlay_text& t, int size) {
  return context.drawn_size == size && context.drawn_text_color == t.text_color &&
         context.drawn_outline_color == t.outline_color &&
         context.drawn_background_color == t.background_color;
}

}  // namespace
}  // namespace zantrel::device

using namespace zantrel::device;

extern "C" {

modifiable_text_context* o_modifiable_text_context_create(int fd) {
  auto* context =
      static_cast<modifiable_text_context*>(g_try_malloc0(sizeof(modifiable_text_context)));
  if (context != nullptr) {
    context->text = static_cast<char*>(g_try_malloc0(kTextSize));
    context->render = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
  }
  if (context == nullptr || context->text == nullptr || context->render == nullptr) {
    zantrel::log_message(LOG_ERR,
                         "libzantrel: Could not allocate memory for modifiable text context\n");
    if (context != nullptr) {
      g_free(context->text);
      render_text_destroy(context->render);
      g_free(context);
    }
    return nullptr;
  }
  context->fd = fd;
  context->count = -1;
  context->drawn_size = -1;
  return context;
}

modifiable_text_context* o_modifiable_text_context_get(overlay_stream_context* stream, int handle) {
  if (stream == nullptr || stream->text_contexts == nullptr) return nullptr;
  gpointer key = GINT_TO_POINTER(handle);
  auto* context =
      static_cast<modifiable_text_context*>(g_hash_table_lookup(stream->text_contexts, key));
  if (context == nullptr) {
    context = o_modifiable_text_context_create(stream->fd);
    if (context != nullptr) g_hash_table_insert(stream->text_contexts, key, context);
  }
  return context;
}

void o_modifiable_text_context_update_count(modifiable_text_context* context, int count) {
  if (context != nullptr) context->count = count;
}

void o_modifiable_text_context_destroy(modifiable_text_context* context) {
  if (context == nullptr) return;
  g_free(context->text);
  forget_buffers(*context);
  if (context->kernel_id != 0) o_destroy_overlay(context->fd, static_cast<int>(context->kernel_id));
  render_text_destroy(context->render);
  g_free(context);
}

int o_remove_unused_modifiable_text_context(void* key, void*, void* user_data) {
  const auto* handles = static_cast<const int32_t*>(user_data);
  const int handle = GPOINTER_TO_INT(key);
  for (int i = 0; i < OVERLAY_SET_PLACES; ++i) {
    if (handles[i] == handle) return 0;
  }
  return 1;
}

uint32_t o_get_modifiable_text_overlay_id(overlay_stream_context* stream,
                                          modifiable_text_context* context,
                                          overlay_table_entry* slot,
                                          const overlay_expansion_params* params) {
  if (stream == nullptr || context == nullptr || slot == nullptr) return 0;
  overlay_text& t = slot->data.description.text;
  char expanded[kTextSize] = {};
  expand(expanded, t, params);

  // Compared with what would be drawn (the size o_render_text uses, not the
  // render context's em size), so that a text is not drawn again every frame
  // on streams where that size is scaled, truncated or raised to 16.
  const int size = render_size(t, stream);
  if (std::strncmp(expanded, context->text, kTextSize) != 0) {
    std::memcpy(context->text, expanded, kTextSize);
  } else if (context->kernel_id != 0 && shows_look_of(*context, t, size)) {
    return context->kernel_id;
  }
  // Until this draw succeeds, the overlay does not show what this frame
  // asks for: a failed frame is drawn again on the next one.
  context->drawn_size = -1;

  sized_buffer rendered{};
  if (o_render_text(&rendered, &t, context->render, stream, expanded) != 0) {
    zantrel::log_message(LOG_ERR, "libzantrel: Could not render the modifiable text overlay\n");
    return 0;
  }
  const int fd = stream->fd;
  const uint32_t pixels = rendered.width * rendered.height;
  int id = static_cast<int>(context->kernel_id);
  uint32_t buffer_size = context->buffer_size;
  int replaced = 0;
  if (context->kernel_id == 0 || context->pixel_count != pixels) {
    t.overlay.width = rendered.width;
    t.overlay.height = rendered.height;
    slot->data.width = rendered.content_width;
    slot->data.height = rendered.content_height;
    t.overlay.format = OVERLAY_FORMAT_PALETTE_4BIT_DUAL;
    t.overlay.nbr_buffers = 3;
    t.overlay.palette_bank = 0;
    if (o_create_overlay(fd, &t.overlay, &id, &slot->data) != 0) {
      zantrel::log_message(LOG_ERR,
                           "libzantrel: Could not create modifiable text overlay buffers\n");
      free(rendered.data);
      return 0;
    }
    buffer_size = t.overlay.buffer_size;
    replaced = static_cast<int>(context->kernel_id);
  }
  const bool created = id != static_cast<int>(context->kernel_id);

  // A new overlay's buffer is mapped on its own until the overlay takes the
  // old one's place; the old overlay's kept mappings stay valid till then.
  const int offset = o_get_overlay_buffer(fd, id);
  const char* failure = nullptr;
  zantrel::Mapping fresh;
  unsigned char* address = nullptr;
  if (offset <= 0) {
    failure = "libzantrel: Could not get modifiable text overlay buffer\n";
  } else {
    if (created) {
      fresh = zantrel::Mapping(fd, buffer_size, PROT_READ | PROT_WRITE, offset);
      address = fresh.bytes();
    } else {
      address = kept_buffer(*context, fd, offset);
    }
    if (address == nullptr || !write_dual_copy(address, buffer_size, rendered)) {
      failure = "libzantrel: Could not mmap modifiable text overlay buffer\n";
    }
  }
  free(rendered.data);
  if (failure != nullptr) {
    zantrel::log_message(LOG_ERR, "%s", failure);
    if (created) o_destroy_overlay(fd, id);
    return 0;
  }
  o_submit_overlay_buffer(fd, id, offset, 0);

  // The replaced overlay goes only now that the new one shows the text.
  if (created) {
    forget_buffers(*context);
    context->buffer_size = buffer_size;
    context->mappings[0] = {offset, fresh.release()};
    context->next_mapping = 1;
  }
  context->kernel_id = static_cast<uint32_t>(id);
  context->pixel_count = pixels;
  context->drawn_size = size;
  context->drawn_text_color = t.text_color;
  context->drawn_outline_color = t.outline_color;
  context->drawn_background_color = t.background_color;
  if (replaced > 0) o_destroy_overlay(fd, replaced);
  return context->kernel_id;
}

int o_update_scrolling_text(overlay_entry_data* data, const modifiable_text_context* context,
                            uint32_t stream_width, uint32_t kernel_id) {
  if (data == nullptr || context == nullptr) return 0;
  overlay_text& t = data->description.text;
  if (t.scroll_speed == 0) return 0;
  overlay_position& position = t.overlay.position;
  double factor = kScrollFactor;
  if (position.coord_type != OVERLAY_COORDS_NORMALIZED) {
    zantrel::log_message(
        LOG_WARNING, "libzantrel: Scrolling text only supports normalized destination coords.\n");
    factor = 0.0;
  }
  const auto stream = static_cast<double>(static_cast<int32_t>(stream_width));
  const auto width = static_cast<double>(static_cast<int32_t>(t.overlay.width));
  // Guards a zero sum; the step is then that of a text as wide as the frame.
  const double share = stream + width != 0.0 ? stream / (width + stream) : 0.5;
  const double x = position.x + share * (t.scroll_speed * factor);
  position.x = static_cast<float>(x);
  if (x > 1.0) {
    position.x = 0.0f;
    position.visible_width = 1.0f;
  } else if (x >= 0.0) {
    // The text is cut at the frame's right edge: the room left there, in
    // units of the width that visible_width is a fraction of, at most all.
    const double shown = std::min(data->width, t.overlay.width);
    const double room = (1.0 - x) * stream;
    position.visible_width =
        static_cast<float>(shown > 0.0 ? std::clamp(room / shown, 0.0, 1.0) : 1.0);
  } else {
    position.x = 1.0f;
    position.visible_width = 0.0f;
  }
  return o_set_overlay_position(context->fd, static_cast<int>(kernel_id), data) == 0 ? 1 : 0;
}

}  // extern "C"
