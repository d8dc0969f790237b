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
};

namespace zantrel::device {

constexpr size_t kTextSize = 512;

// Fills an overlay buffer of at least 2 * rendered bytes: the rendered bytes,
// then the same with the two pixels of every byte exchanged. False when the
// buffer is too small.
bool write_dual_copy(unsigned char* buffer, size_t buffer_size, const sized_buffer& rendered);

// The stream's scale for scalable texts (1.0 at 1080 rows).
float stream_scale(const overlay_stream_context& stream);
// The record's font size, scaled for the stream when the text is scalable.
int scaled_font_size(const overlay_text& t, const overlay_stream_context* stream);
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
