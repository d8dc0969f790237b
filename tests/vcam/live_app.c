/* A camera application as a developer writes one, run under camsim-run: it
 * attaches to the running overlay system, puts a text on stream 1 and a
 * filled box on every stream, and ends, leaving both in the table. */
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

#include "zantrel.h"

int main(void) {
  if (overlay_attach(0) < 0) return 1;
  overlay box = {0};
  box.width = 48;
  box.height = 32;
  box.format = OVERLAY_FORMAT_ARGB32;
  box.nbr_buffers = 2;
  box.position = (overlay_position){24, 40, 1, 1, 0};
  const int box_handle = overlay_create(&box);
  int32_t offset = 0;
  if (box_handle < 1 || overlay_get_buffer(box_handle, &offset) < 0) return 2;
  uint32_t* pixels = mmap(NULL, box.buffer_size, PROT_WRITE, MAP_SHARED, o_get_fd(), offset);
  if (pixels == MAP_FAILED) return 3;
  for (uint32_t i = 0; i < box.width * box.height; ++i) pixels[i] = 0xFFFF0000u;
  munmap(pixels, box.buffer_size);
  if (overlay_submit_buffer(box_handle, offset, 0) < 0 || overlay_add_globally(box_handle) < 0)
    return 4;

  overlay_text text = {0};
  text.overlay.position = (overlay_position){120, 100, 1, 1, 0};
  strcpy(text.text, "HELLO");
  text.font_size = 32;
  text.text_color = OVERLAY_COLOR_WHITE;
  text.background_color = OVERLAY_COLOR_BLACK;
  text.outline_color = OVERLAY_COLOR_BLACK;
  const int text_handle = overlay_text_create(&text);
  if (text_handle < 1 || overlay_add_to_stream(text_handle, 0, 1) < 0) return 5;
  printf("box %d, text %d, %ux%u\n", box_handle, text_handle, text.overlay.width,
         text.overlay.height);
  return overlay_detach();
}
