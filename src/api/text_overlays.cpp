// Text overlays: a fixed or modifiable text rendered into a hardware overlay
// and stored in the table, and rendering a text for a caller.
#include <glib.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "api.h"
#include "common/log.h"
#include "text.h"
#include "tokenfill.h"

namespace zantrel::api {
namespace {

constexpr int kMaxFontSize = 200;
constexpr int kMinimumSize = 16;

using RenderContext = text::RenderPtr;

// A text with a modifier, or one that scrolls, changes while it is shown.
int32_t text_type(const overlay_text& t) {
  if (t.scroll_speed != 0) return OVERLAY_TYPE_MODIFIABLE_TEXT;
  for (char c : t.text) {
    if (c == '\0') break;
    if (c == '#' || c == '%') return OVERLAY_TYPE_MODIFIABLE_TEXT;
  }
  return OVERLAY_TYPE_TEXT;
}

// The caller's text, NUL-terminated within its 512 bytes.
void bounded_copy(char (&out)[text::kTextSize], const overlay_text& t) {
  std::memcpy(out, t.text, sizeof out);
  out[sizeof out - 1] = '\0';
}

}  // namespace

// The text as it reads now, with every modifier expanded.
void _make_dummy_text(char* out, const char* text) {
  tokenfill_context* context = tokenfill_init();
  if (context == nullptr) {
    g_strlcpy(out, text, text::kTextSize);
    return;
  }
  timeval now{};
  gettimeofday(&now, nullptr);
  context->use_local_time = 1;
  tokenfill_expand(out, text::kTextSize, text, context, &now);
  tokenfill_exit(context);
}

namespace {

// Renders the expanded text into a new hardware overlay; the entry data
// receives its size, kernel id, type and the record.
int make_text_overlay(overlay_text* t, overlay_entry_data* data, int* kernel_id) {
  RenderContext render(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  if (!render) return -1;
  char text[text::kTextSize];
  bounded_copy(text, *t);
  char expanded[text::kTextSize] = {};
  _make_dummy_text(expanded, text);
  if (int rc = o_create_text_overlay(render.get(), nullptr, t, data, expanded, kernel_id);
      rc != 0) {
    return rc;
  }
  t->text_length = static_cast<uint32_t>(std::strlen(expanded));
  data->kernel_id = *kernel_id;
  data->type = text_type(*t);
  std::memcpy(&data->description.text, t, sizeof *t);
  return 0;
}

}  // namespace
}  // namespace zantrel::api

using zantrel::log_message;
using namespace zantrel::api;

extern "C" {

int o_create_text_overlay(render_text_context* render, const overlay_stream_context* stream,
                          overlay_text* t, overlay_entry_data* data, const char* text, int* id) {
  if (t == nullptr || data == nullptr || id == nullptr) return -1;
  const int fd = stream != nullptr ? stream->fd : o_get_fd();
  return zantrel::text::create_text_overlay(fd, render, stream, *t, *data, text, *id) ==
                 zantrel::text::Outcome::kDone
             ? 0
             : -1;
}

int overlay_text_create(overlay_text* t) {
  if (t == nullptr || t->font_size > kMaxFontSize) return -2;
  return api_call("overlay_text_create", [&] {
    zantrel::table::MappedTable table = zantrel::table::map_table();
    if (!table) return -1;
    t->overlay.palette_bank = 0;
    overlay_entry_data data{};
    int kernel_id = 0;
    if (int rc = make_text_overlay(t, &data, &kernel_id); rc != 0) return rc;

    int handle = -1;
    {
      zantrel::table::TableLock lock(table.get());
      if (lock.result() == 0) handle = overlay_table_create_overlay(table.get(), &data);
    }
    if (handle > 0) {
      log_message(LOG_INFO, "text overlay created %d, scalable = %d, (ovl_id %d)", handle,
                  data.description.text.scalable, kernel_id);
    } else if (zantrel::has_overlay(kernel_id)) {
      zantrel::device::destroy_or_keep(o_get_fd(), kernel_id);
    }
    return handle;
  });
}

int overlay_text_update(int handle, overlay_text* t) {
  if (t == nullptr || t->font_size > kMaxFontSize) return -2;
  return api_call("overlay_text_update", [&] {
    zantrel::table::MappedTable table = zantrel::table::map_table();
    if (!table) return -1;
    // A handle that names no overlay gets nothing: neither a hardware overlay
    // nor half an entry.
    const int used = entry_in_use(table.get(), handle);
    if (used != 0) return used;
    overlay_entry_data data{};
    int kernel_id = 0;
    if (make_text_overlay(t, &data, &kernel_id) != 0) return -1;

    int former = 0;
    bool in_source = false;
    int rc = -1;
    {
      zantrel::table::TableLock lock(table.get());
      if (lock.result() == 0) {
        // Destroyed while the text was drawn: the handle is free again.
        rc = entry_in_use_locked(table.get(), handle);
        if (rc == 0) rc = overlay_table_update_overlay(table.get(), handle, &data, &former);
        if (rc == 0) o_set_overlay_position(o_get_fd(), kernel_id, &data);
        in_source = rc == 0 && overlay_table_is_source_entry(table.get(), handle) == 0;
      }
    }
    if (rc != 0) {
      zantrel::device::destroy_or_keep(o_get_fd(), kernel_id);
      return rc;
    }
    // The table names the new overlay before the old one goes.
    if (former > 0) zantrel::device::destroy_or_keep(o_get_fd(), former);
    log_message(LOG_INFO, "text overlay updated %d, scalable = %d, (ovl_id %d)", handle,
                data.description.text.scalable, kernel_id);
    if (in_source) o_add_source_overlay(o_get_fd(), kernel_id);
    return 0;
  });
}

int overlay_text_destroy(int handle) { return overlay_destroy(handle); }

uint32_t* overlay_text_render(const overlay_stream_context* stream, overlay_text* t,
                              const char* text, overlay_format format) {
  return guarded("overlay_text_render", static_cast<uint32_t*>(nullptr),
                 [&] { return render_for_caller(stream, t, text, format); });
}

}  // extern "C"

namespace zantrel::api {

uint32_t* render_for_caller(const overlay_stream_context* stream, overlay_text* t, const char* text,
                            overlay_format format) {
  RenderContext render(render_text_init(format));
  if (!render) {
    log_message(LOG_ERR,
                "libzantrel: Failed to create render context for legacy / scaled text overlay\n");
    return nullptr;
  }
  if (t == nullptr) return nullptr;
  char own_text[zantrel::text::kTextSize];
  if (text == nullptr) {
    bounded_copy(own_text, *t);
    text = own_text;
  }
  const int size = zantrel::text::scaled_font_size(*t, stream);
  sized_buffer result{};
  zantrel::text::LineList lines;
  if (t->overlay.legacy == 1 && stream != nullptr) {
    const bool bottom = zantrel::text::at_bottom_edge(t->overlay.position);
    const int remainder = t->font_size % 16;
    result = render_text_buffer_legacy(
        render.get(), text, t->text_color, t->outline_color, t->background_color,
        bottom ? t->background_color : overlay_color{OVERLAY_COLOR_TRANSPARENT}, t->font_size,
        stream->width, remainder == 0 ? 0 : 16 - remainder);
  } else {
    if (lines.split(text) != 0) {
      log_message(LOG_ERR, "libzantrel: Invalid text string\n");
      return nullptr;
    }
    result = render_text_buffer_multiline(render.get(), lines.lines, lines.count, t->text_color,
                                          t->outline_color, t->background_color,
                                          size < kMinimumSize ? kMinimumSize : size);
  }
  if (result.data == nullptr) {
    log_message(LOG_ERR, "libzantrel: %s: Could not render multiline text\n",
                "overlay_text_render");
    return nullptr;
  }
  t->overlay.width = result.width;
  t->overlay.height = result.height;
  t->overlay.format = OVERLAY_FORMAT_PALETTE_4BIT;
  return result.data;
}

}  // namespace zantrel::api
