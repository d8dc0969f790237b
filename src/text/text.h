// The text layer, between the overlay API above and the device and renderer
// below: texts rendered into hardware overlays of the dual 4-bit format, and
// the modifiable text of one stream, an object that owns its overlay, the
// mappings of that overlay's buffers, its renderer and glyph cache.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/result.h"
#include "render.h"
#include "zantrel.h"

namespace zantrel::text {

constexpr size_t kTextSize = 512;

struct RenderDeleter {
  void operator()(render_text_context* context) const { render_text_destroy(context); }
};
using RenderPtr = std::unique_ptr<render_text_context, RenderDeleter>;

// Fills an overlay buffer of at least 2 * rendered bytes: the rendered bytes,
// then the same with the two pixels of every byte exchanged. False when the
// buffer is too small.
bool write_dual_copy(unsigned char* buffer, size_t buffer_size, const sized_buffer& rendered);

// The record's font size, scaled for the stream when the text is scalable.
int scaled_font_size(const overlay_text& t, const overlay_stream_context* stream);
// render_text draws the text as a legacy band across the stream.
bool drawn_as_legacy(const overlay_text& t, const overlay_stream_context* stream);
// The text size that render_text gives its renderer: the unscaled font size
// for a legacy band, else the scaled size raised to 16.
int render_size(const overlay_text& t, const overlay_stream_context* stream);
// The text sits on the picture's bottom edge: a legacy band there reaches
// down to the edge.
bool at_bottom_edge(const overlay_position& position);

// The lines of split_into_lines, freed with the list.
struct LineList {
  char** lines = nullptr;
  int count = 0;
  LineList() = default;
  LineList(const LineList&) = delete;
  LineList& operator=(const LineList&) = delete;
  ~LineList();
  // 0, or split_into_lines' failure (the list stays empty).
  int split(const char* text);
};

// What a render or a text overlay came to. kDeferred: the renderer's work
// budget ran out before the text was drawn; nothing was made or logged, and
// the same call made again later goes on where this one stopped.
enum class Outcome { kDone, kDeferred, kFailed };

// Renders the text for the stream (or for no stream) into out, whose data
// the caller frees when kDone.
Outcome render_text(sized_buffer& out, const overlay_text& t, render_text_context* render,
                    const overlay_stream_context* stream, const char* text);

// Renders the text into a new hardware overlay on fd (dual 4-bit, one
// buffer); data receives the content size and, when kDone, a copy of t.
Outcome create_text_overlay(int fd, render_text_context* render,
                            const overlay_stream_context* stream, overlay_text& t,
                            overlay_entry_data& data, const char* text, int& id);

}  // namespace zantrel::text

// One modifiable text on one stream. The text is expanded for the frame's
// time and drawn again only when it, its colours or its size changed; the
// expansion itself is skipped while the frame's second, the expansion
// context and the template are those of the last expansion, since no
// modifier changes within a second.
struct modifiable_text_context {
  modifiable_text_context(int descriptor, zantrel::text::RenderPtr renderer)
      : fd(descriptor), render(std::move(renderer)) {}
  modifiable_text_context(const modifiable_text_context&) = delete;
  modifiable_text_context& operator=(const modifiable_text_context&) = delete;
  // Unmaps the buffers and destroys the hardware overlay and the renderer.
  ~modifiable_text_context();

  struct Drawn {
    uint32_t id;    // the overlay that shows the text now, 0 for none
    bool deferred;  // the new look is not drawn yet: the budget ran out
  };
  // The overlay showing the slot's text as it reads for this frame, drawn
  // again when needed; id 0 when that failed (logged) and no overlay exists.
  Drawn draw(const overlay_stream_context& stream, overlay_table_entry& slot,
             const overlay_expansion_params* params);

  // The stream's gathering found this text again: its record changed (a new
  // look, drawn into a new overlay that replaces the old once complete) or
  // not; either way the glyph cache serves again as a fresh one would.
  void gathered_again(bool record_changed);

  int32_t fd;          // the stream context's device descriptor
  int32_t count = -1;  // request position of the text, -1 until recorded
  uint32_t kernel_id = 0;
  uint32_t pixel_count = 0;
  zantrel::text::RenderPtr render;  // where the caller sets the work budget

 private:
  bool expansion_current(const overlay_text& t, const overlay_expansion_params* params) const;
  void remember_expansion(const overlay_text& t, const overlay_expansion_params* params);
  bool shows_look_of(const overlay_text& t, int size) const;
  unsigned char* kept_buffer(int offset);
  void forget_buffers();

  std::array<char, zantrel::text::kTextSize> text_{};  // the expanded text last drawn
  uint32_t buffer_size_ = 0;                           // bytes of kernel_id's buffers
  // The buffers of kernel_id stay mapped while it lives: a clock redrawn
  // every second then costs no mmap and munmap (and no TLB flush) a frame.
  struct BufferMapping {
    int32_t offset;
    unsigned char* address;
  };
  std::array<BufferMapping, 3> mappings_{};
  uint32_t next_mapping_ = 0;  // the place a new mapping takes when all are used
  // What kernel_id shows besides the text: the text size given to the
  // renderer (-1 when nothing valid is shown) and the three colours.
  int32_t drawn_size_ = -1;
  overlay_color drawn_text_color_ = 0;
  overlay_color drawn_outline_color_ = 0;
  overlay_color drawn_background_color_ = 0;
  bool new_overlay_ = false;  // the record changed: the next draw makes a new overlay
  // The last expansion: its template, second and expansion context.
  std::array<char, zantrel::text::kTextSize> template_{};
  bool expanded_ = false;
  int64_t expanded_second_ = 0;
  const void* expanded_with_ = nullptr;
  int32_t expanded_local_ = 0;
};
