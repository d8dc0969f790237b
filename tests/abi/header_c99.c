/* The public header is plain C: compiled here as C99 with -pedantic, and the
 * layouts a C program sees are the library's. Linked against the shared
 * library, so the exports resolve from C. */
#include <stddef.h>
#include <stdio.h>

#include "zantrel.h"

#define CHECK(cond)                           \
  do {                                        \
    if (!(cond)) {                            \
      fprintf(stderr, "failed: %s\n", #cond); \
      failures++;                             \
    }                                         \
  } while (0)

int main(void) {
  int failures = 0;
  const uint32_t* colors = NULL;
  CHECK(sizeof(overlay) == 88);
  CHECK(offsetof(overlay, legacy) == 76);
  CHECK(sizeof(overlay_position) == 20);
  CHECK(sizeof(internal_overlay) == 76);
  CHECK(sizeof(overlay_entry_data) == 644);
  CHECK(sizeof(overlay_table_entry) == 652);
  CHECK(offsetof(overlay_table, entries) == 148);
  CHECK(offsetof(overlay_table, palette_copy) == 65348);
  CHECK(offsetof(overlay_table, table_mutex) == 65476);
  CHECK(sizeof(overlay_table) == 65476 + sizeof(pthread_mutex_t));
  /* The camera's 32-bit ARM: its mutex is 24 bytes, its table 65500. */
  CHECK(sizeof(pthread_mutex_t) != 24 || sizeof(overlay_table) == 65500);
  CHECK(sizeof(overlay_stream_table) == 16);
  CHECK(sizeof(overlay_text) == 628);
  CHECK(offsetof(overlay_text, text_length) == 624);
  CHECK(sizeof(overlay_image) == 608);
  CHECK(offsetof(overlay_image, modified_time) == 604);
  CHECK(o_calculate_overlay_size(7, 5, OVERLAY_FORMAT_1BIT) == 5);
  CHECK(palette_get_default(&colors, NULL) == 16 && colors == static_palette);
  CHECK(rgb2ycbcr[8] == -5329);
  printf("%d failures; overlay_table is %u bytes\n", failures, (unsigned)sizeof(overlay_table));
  return failures == 0 ? 0 : 1;
}
