// Device text overlays: the modifiable text context and the dual 4-bit copy
// that every text overlay buffer holds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zantrel.h"

struct modifiable_text_context {
  int32_t fd;          // the stream context's device descriptor
  int32_t count;       // request position of the text, -1 until recorded
  uint32_t kernel_id;  // the overlay showing the text now, 0 for none; owned
  uint32_t pixel_count;
  char* text;  // 512 bytes: the expanded text last drawn
  render_text_context* render;
  overlay_position last_position;  // reserved
  uint32_t buffer_size;            // bytes of kernel_id's buffers
  // The buffers of kernel_id stay mapped while it lives: a clock redrawn
  // every second then costs no mmap and munmap (and no TLB flush) a frame.
  struct BufferMapping {
    int32_t offset;
    unsigned char* address;
  } mappings[3];
  uint32_t next_mapping;  // the place a new mapping takes when all are used
  // What kernel_id shows besides `text`: the text size given to the renderer
  // (-1 when nothing valid is shown) and the three colours. A frame draws
  // again only when one of them or the text differs from what it would draw.
  int32_t drawn_size;
  overlay_color drawn_text_color;
  overlay_color drawn_outline_color;
  overlay_color drawn_background_color;
};

namespace zantrel::device {

constexpr size_t kTextSize = 512;

// Fills an overlay buffer of at least 2 * rendered bytes: the rendered bytes,
// then the same with the two pixels of every byte exchanged. False when the
// buffer is too small.
bool write_dual_copy(unsigned char* buffer, size_t buffer_size, const sized_buffer& rendered);

// The record's font size, scaled for the stream when the text is scalable.
int scaled_font_size(const overlay_text& t, const overlay_stream_context* stream);
// o_render_text draws the text as a legacy band across the stream.
bool drawn_as_legacy(const overlay_text& t, const overlay_stream_context* stream);
// The text size that o_render_text gives its renderer: the unscaled font
// size for a legacy band, else the scaled size raised to 16.
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

}  // namespace zantrel::device
