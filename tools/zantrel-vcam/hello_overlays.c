/* hello-overlays: the smallest camera application, a starting point for your
 * own. Run it on the simulated driver while the virtual camera serves:
 *
 *   zantrel-vcam --serve &
 *   camsim-run hello-overlays
 *
 * It attaches to the running overlay system, puts a red box (a plain ARGB
 * overlay that it fills itself) on every stream and a text on stream 1, and
 * ends. The overlays stay in the shared table after it ends, until a program
 * destroys them or the overlay system stops. */
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

#include "zantrel.h"

static int fail(const char* what, int result) {
  fprintf(stderr, "hello-overlays: %s returned %d\n", what, result);
  return 1;
}

int main(void) {
  const int fd = overlay_attach(0);
  if (fd < 0) return fail("overlay_attach (is zantrel-vcam --serve running?)", fd);

  /* A 48 x 32 box at pixel (24, 40): the library sizes its buffers, this
   * program paints one and hands it to the driver. */
  overlay box = {0};
  box.width = 48;
  box.height = 32;
  box.format = OVERLAY_FORMAT_ARGB32;
  box.nbr_buffers = 2;
  box.position = (overlay_position){24, 40, 1.0f, 1.0f, 0};
  const int box_handle = overlay_create(&box);
  if (box_handle < 1) return fail("overlay_create", box_handle);
  int32_t offset = 0;
  int result = overlay_get_buffer(box_handle, &offset);
  if (result < 0) return fail("overlay_get_buffer", result);
  uint32_t* pixels = mmap(NULL, box.buffer_size, PROT_WRITE, MAP_SHARED, fd, offset);
  if (pixels == MAP_FAILED) return fail("mmap", -1);
  for (uint32_t i = 0; i < box.width * box.height; ++i) pixels[i] = 0xFFFF0000u; /* ARGB red */
  munmap(pixels, box.buffer_size);
  if ((result = overlay_submit_buffer(box_handle, offset, 0)) < 0)
    return fail("overlay_submit_buffer", result);
  if ((result = overlay_add_globally(box_handle)) < 0) return fail("overlay_add_globally", result);

  /* A text at pixel (120, 100), drawn by the library, on stream 1 only. */
  overlay_text text = {0};
  text.overlay.position = (overlay_position){120, 100, 1.0f, 1.0f, 0};
  strcpy(text.text, "HELLO");
  text.font_size = 32;
  text.text_color = OVERLAY_COLOR_WHITE;
  text.background_color = OVERLAY_COLOR_BLACK;
  text.outline_color = OVERLAY_COLOR_BLACK;
  const int text_handle = overlay_text_create(&text);
  if (text_handle < 1) return fail("overlay_text_create", text_handle);
  if ((result = overlay_add_to_stream(text_handle, 0, 1)) < 0)
    return fail("overlay_add_to_stream", result);

  printf("box: overlay %d, text: overlay %d (%ux%u pixels)\n", box_handle, text_handle,
         text.overlay.width, text.overlay.height);
  return overlay_detach() == 0 ? 0 : 1;
}
