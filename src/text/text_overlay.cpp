// Text overlays: a text rendered once into a new hardware overlay of the
// dual 4-bit format.
#include "text.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "kept_overlays.h"
#include "zantrel-base/mapping.h"

namespace zantrel::text {
namespace {

constexpr int kMinimumSize = 16;

}  // namespace

bool at_bottom_edge(const overlay_position& position) {
  return position.coord_type == OVERLAY_COORDS_NORMALIZED &&
         static_cast<double>(position.y) > 0.999;
}

int scaled_font_size(const overlay_text& t, const overlay_stream_context* stream) {
  if (t.scalable != 1 || stream == nullptr) return t.font_size;
  return static_cast<int>(static_cast<float>(stream->height / 1080.0) *
                          static_cast<float>(t.font_size));
}

bool drawn_as_legacy(const overlay_text& t, const overlay_stream_context* stream) {
  return t.overlay.legacy == 1 && stream != nullptr;
}

int render_size(const overlay_text& t, const overlay_stream_context* stream) {
  if (drawn_as_legacy(t, stream)) return t.font_size;
  const int size = scaled_font_size(t, stream);
  return size < kMinimumSize ? kMinimumSize : size;
}

LineList::~LineList() {
  for (int i = 0; i < count; ++i) free(lines[i]);
  free(lines);
}

int LineList::split(const char* text) {
  const int rc = split_into_lines(&lines, &count, text);
  if (rc != 0) count = 0;
  return rc;
}

bool write_dual_copy(unsigned char* buffer, size_t buffer_size, const sized_buffer& rendered) {
  const size_t length = sized_buffer_datalen(&rendered);
  if (buffer_size / 2 < length) return false;
  const auto* source = reinterpret_cast<const unsigned char*>(rendered.data);
  for (size_t i = length; i-- > 0;) {
    const unsigned char b = source[i];
    buffer[length + i] = static_cast<unsigned char>((b << 4) | (b >> 4));
    buffer[i] = b;
  }
  return true;
}

Outcome render_text(sized_buffer& out, const overlay_text& t, render_text_context* render,
                    const overlay_stream_context* stream, const char* text) {
  if (render == nullptr) return Outcome::kFailed;
  if (text == nullptr) text = t.text;
  // Whether this render stops for want of allowance; an earlier one's
  // stopping says nothing of a text whose glyphs are all cached.
  if (render->budget != nullptr) render->budget->deferred = false;
  const int size = render_size(t, stream);
  sized_buffer result{};
  if (drawn_as_legacy(t, stream)) {
    result = render_text_buffer_legacy(render, text, t.text_color, t.outline_color,
                                       t.background_color, t.background_color, size, stream->width,
                                       at_bottom_edge(t.overlay.position) ? 8 : 0);
  } else {
    LineList lines;
    if (lines.split(text) != 0) {
      log_message(LOG_ERR, "libzantrel: Could not split multiline string\n");
      return Outcome::kFailed;
    }
    result = render_text_buffer_multiline(render, lines.lines, lines.count, t.text_color,
                                          t.outline_color, t.background_color, size);
  }
  if (render->budget != nullptr && render->budget->deferred) return Outcome::kDeferred;
  out = result;
  if (result.data == nullptr) {
    log_message(LOG_ERR, "libzantrel: Rendering failed in overlay_text_rendering\n");
    return Outcome::kFailed;
  }
  return Outcome::kDone;
}

Outcome create_text_overlay(int fd, render_text_context* render,
                            const overlay_stream_context* stream, overlay_text& t,
                            overlay_entry_data& data, const char* text, int& id) {
  sized_buffer rendered{};
  const Outcome outcome = render_text(rendered, t, render, stream, text);
  if (outcome == Outcome::kDeferred) return outcome;
  if (outcome != Outcome::kDone) {
    log_message(LOG_ERR, "libzantrel: Could not render text\n");
    return outcome;
  }
  const std::unique_ptr<uint32_t, decltype(&free)> pixels(rendered.data, &free);
  t.overlay.width = rendered.width;
  t.overlay.height = rendered.height;
  data.width = rendered.content_width;
  data.height = rendered.content_height;
  t.overlay.format = OVERLAY_FORMAT_PALETTE_4BIT_DUAL;
  t.overlay.nbr_buffers = 1;

  int new_id = 0;
  if (o_create_overlay(fd, &t.overlay, &new_id, &data) != 0) {
    log_message(LOG_ERR, "libzantrel: Could not create overlay buffer\n");
    return Outcome::kFailed;
  }
  const int offset = o_get_overlay_buffer(fd, new_id);
  Mapping buffer;
  if (offset > 0) {
    buffer = Mapping(fd, t.overlay.buffer_size, PROT_READ | PROT_WRITE, offset);
  } else {
    errno = EINVAL;
  }
  if (!buffer || !write_dual_copy(buffer.bytes(), buffer.size(), rendered)) {
    const int error = buffer ? ENOSPC : errno;
    zantrel::device::destroy_or_keep(fd, new_id);
    log_message(LOG_ERR, "libzantrel: Failed to map overlay buffer: %s\n", error_text(error));
    return Outcome::kFailed;
  }
  buffer.reset();
  // t may be the description itself (a stream context's local copy).
  std::memmove(&data.description.text, &t, sizeof t);
  // An overlay whose text never reached the screen is a failure to report,
  // not an overlay to keep.
  if (o_submit_overlay_buffer(fd, new_id, offset, 0) != 0) {
    zantrel::device::destroy_or_keep(fd, new_id);
    return Outcome::kFailed;
  }
  id = new_id;
  return Outcome::kDone;
}

}  // namespace zantrel::text

using namespace zantrel::text;

extern "C" {

int o_render_text(sized_buffer* out, const overlay_text* t, render_text_context* render,
                  const overlay_stream_context* stream, const char* text) {
  if (out == nullptr || t == nullptr || render == nullptr) return -1;
  return render_text(*out, *t, render, stream, text) == Outcome::kDone ? 0 : -1;
}

}  // extern "C"
