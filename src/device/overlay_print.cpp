// Diagnostic printers of the description records. This build prints nothing:
// the entry points exist so that callers and the table's entry printer can
// rely on them.
#include "zantrel.h"

extern "C" {

void overlay_print_overlay_position(const overlay_position* /*position*/) {}

void overlay_print_overlay_color(overlay_color /*color*/) {}

void overlay_print_overlay(const overlay* ovl) {
  if (ovl != nullptr) {
    overlay_print_overlay_position(&ovl->position);
  }
}

void overlay_print_overlay_text(const overlay_text* text) {
  if (text != nullptr) {
    overlay_print_overlay_color(text->text_color);
    overlay_print_overlay_color(text->background_color);
    overlay_print_overlay_color(text->outline_color);
    overlay_print_overlay(&text->overlay);
  }
}

void overlay_print_overlay_image(const overlay_image* image) {
  if (image != nullptr) {
    overlay_print_overlay(&image->overlay);
  }
}

}  // extern "C"
