// Modifiable texts: per stream and text, the text is expanded for the frame
// and drawn again only when it, its colours or the size it is drawn at
// changed; scrolling texts move a step every frame. The exported functions
// are thin shims over modifiable_text_context.
#include <glib.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/log.h"
#include "kept_overlays.h"
#include "text.h"
#include "tokenfill.h"
#include "zantrel-base/mapping.h"

using zantrel::text::kTextSize;

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

int32_t local_time_of(const overlay_expansion_params* params) {
  const auto* context = static_cast<const tokenfill_context*>(params->tokenfill_context);
  return context != nullptr ? context->use_local_time : 0;
}

}  // namespace

modifiable_text_context::~modifiable_text_context() {
  forget_buffers();
  if (zantrel::has_overlay(kernel_id))
    zantrel::device::destroy_or_keep(fd, static_cast<int>(kernel_id));
}

void modifiable_text_context::forget_buffers() {
  for (auto& mapping : mappings_) {
    if (mapping.address != nullptr) munmap(mapping.address, buffer_size_);
    mapping = {0, nullptr};
  }
  next_mapping_ = 0;
}

// The kept mapping of one buffer of the context's overlay, made on first use.
unsigned char* modifiable_text_context::kept_buffer(int offset) {
  for (const auto& mapping : mappings_) {
    if (mapping.address != nullptr && mapping.offset == offset) return mapping.address;
  }
  zantrel::Mapping fresh(fd, buffer_size_, PROT_READ | PROT_WRITE, offset);
  if (!fresh) return nullptr;
  auto& place = mappings_[next_mapping_];
  next_mapping_ = (next_mapping_ + 1) % mappings_.size();
  if (place.address != nullptr) munmap(place.address, buffer_size_);
  place = {offset, fresh.release()};
  return place.address;
}

// The overlay shows the text as the record and stream would draw it now.
bool modifiable_text_context::shows_look_of(const overlay_text& t, int size) const {
  return drawn_size_ == size && drawn_text_color_ == t.text_color &&
         drawn_outline_color_ == t.outline_color && drawn_background_color_ == t.background_color;
}

// The text expanded now would read as the last expansion: the same template
// and, for a frame time, the same second and expansion context.
bool modifiable_text_context::expansion_current(const overlay_text& t,
                                                const overlay_expansion_params* params) const {
  if (!expanded_) return false;
  if (params != nullptr) {
    if (params->time == nullptr || params->tokenfill_context != expanded_with_ ||
        params->time->tv_sec != expanded_second_ || local_time_of(params) != expanded_local_) {
      return false;
    }
  } else if (expanded_with_ != nullptr || expanded_second_ != -1) {
    return false;
  }
  return std::strncmp(template_.data(), t.text, kTextSize) == 0;
}

void modifiable_text_context::remember_expansion(const overlay_text& t,
                                                 const overlay_expansion_params* params) {
  g_strlcpy(template_.data(), t.text, kTextSize);
  expanded_with_ = params != nullptr ? params->tokenfill_context : nullptr;
  expanded_second_ = params != nullptr && params->time != nullptr ? params->time->tv_sec : -1;
  expanded_local_ = params != nullptr ? local_time_of(params) : 0;
  expanded_ = true;
}

void modifiable_text_context::gathered_again(bool record_changed) {
  if (record_changed) {
    drawn_size_ = -1;
    expanded_ = false;
    new_overlay_ = zantrel::has_overlay(kernel_id);
  }
  if (render) zantrel::render::reuse_glyph_cache(render.get());
}

modifiable_text_context::Drawn modifiable_text_context::draw(
    const overlay_stream_context& stream, overlay_table_entry& slot,
    const overlay_expansion_params* params) {
  overlay_text& t = slot.data.description.text;
  // Compared with what would be drawn (the size render_text uses, not the
  // render context's em size), so that a text is not drawn again every frame
  // on streams where that size is scaled, truncated or raised to 16.
  const int size = zantrel::text::render_size(t, &stream);
  const bool look_unchanged =
      zantrel::has_overlay(kernel_id) && !new_overlay_ && shows_look_of(t, size);
  if (look_unchanged && expansion_current(t, params)) return {kernel_id, false};

  char expanded[kTextSize] = {};
  expand(expanded, t, params);
  remember_expansion(t, params);
  if (std::strncmp(expanded, text_.data(), kTextSize) != 0) {
    std::memcpy(text_.data(), expanded, kTextSize);
  } else if (look_unchanged) {
    return {kernel_id, false};
  }
  // Until a draw succeeds, the overlay does not show what this frame asks
  // for: a failed or deferred frame is drawn again on the next one.
  drawn_size_ = -1;

  sized_buffer rendered{};
  switch (zantrel::text::render_text(rendered, t, render.get(), &stream, expanded)) {
    case zantrel::text::Outcome::kDeferred:
      return {kernel_id, true};
    case zantrel::text::Outcome::kFailed:
      zantrel::log_message(LOG_ERR, "libzantrel: Could not render the modifiable text overlay\n");
      return {0, false};
    case zantrel::text::Outcome::kDone:
      break;
  }
  const std::unique_ptr<uint32_t, decltype(&free)> pixels_owner(rendered.data, &free);
  const uint32_t pixels = rendered.width * rendered.height;
  int id = static_cast<int>(kernel_id);
  uint32_t size_of_buffers = buffer_size_;
  int replaced = 0;
  if (!zantrel::has_overlay(kernel_id) || pixel_count != pixels || new_overlay_) {
    t.overlay.width = rendered.width;
    t.overlay.height = rendered.height;
    slot.data.width = rendered.content_width;
    slot.data.height = rendered.content_height;
    t.overlay.format = OVERLAY_FORMAT_PALETTE_4BIT_DUAL;
    t.overlay.nbr_buffers = 3;
    t.overlay.palette_bank = 0;
    if (o_create_overlay(fd, &t.overlay, &id, &slot.data) != 0) {
      zantrel::log_message(LOG_ERR,
                           "libzantrel: Could not create modifiable text overlay buffers\n");
      return {0, false};
    }
    size_of_buffers = t.overlay.buffer_size;
    replaced = static_cast<int>(kernel_id);
  }
  const bool created = id != static_cast<int>(kernel_id);

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
      fresh = zantrel::Mapping(fd, size_of_buffers, PROT_READ | PROT_WRITE, offset);
      address = fresh.bytes();
    } else {
      address = kept_buffer(offset);
    }
    if (address == nullptr || !zantrel::text::write_dual_copy(address, size_of_buffers, rendered)) {
      failure = "libzantrel: Could not mmap modifiable text overlay buffer\n";
    }
  }
  if (failure != nullptr) {
    zantrel::log_message(LOG_ERR, "%s", failure);
    if (created) zantrel::device::destroy_or_keep(fd, id);
    return {0, false};
  }
  if (o_submit_overlay_buffer(fd, id, offset, 0) != 0) {
    // Not shown: drawn again on the next frame.
    zantrel::log_message(LOG_ERR, "libzantrel: Could not submit modifiable text overlay buffer\n");
    if (created) zantrel::device::destroy_or_keep(fd, id);
    return {0, false};
  }

  // The replaced overlay goes only now that the new one shows the text.
  if (created) {
    forget_buffers();
    buffer_size_ = size_of_buffers;
    mappings_[0] = {offset, fresh.release()};
    next_mapping_ = 1;
  }
  kernel_id = static_cast<uint32_t>(id);
  pixel_count = pixels;
  drawn_size_ = size;
  drawn_text_color_ = t.text_color;
  drawn_outline_color_ = t.outline_color;
  drawn_background_color_ = t.background_color;
  new_overlay_ = false;
  if (replaced > 0) zantrel::device::destroy_or_keep(fd, replaced);
  return {kernel_id, false};
}

extern "C" {

modifiable_text_context* o_modifiable_text_context_create(int fd) {
  zantrel::text::RenderPtr render(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  auto* context =
      render ? new (std::nothrow) modifiable_text_context(fd, std::move(render)) : nullptr;
  if (context == nullptr) {
    zantrel::log_message(LOG_ERR,
                         "libzantrel: Could not allocate memory for modifiable text context\n");
  }
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

void o_modifiable_text_context_destroy(modifiable_text_context* context) { delete context; }

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
  return context->draw(*stream, *slot, params).id;
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
