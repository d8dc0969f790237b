// The pixels the application makes itself: the bitmap of the scalable image
// and the contents of its plain overlays.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace vcam {

// A 24-bit bottom-up BMP file (40-byte information header): colour bars
// over the top two thirds, a grey ramp below, a white frame around.
std::vector<uint8_t> make_test_bitmap(uint32_t width, uint32_t height);
// The colour make_test_bitmap gives pixel (x, y), as 0xFFRRGGBB.
uint32_t test_bitmap_color(uint32_t x, uint32_t y, uint32_t width, uint32_t height);

// ARGB32 pixels: fill inside a border of border pixels.
void paint_framed(std::span<uint32_t> pixels, uint32_t width, uint32_t height, uint32_t fill,
                  uint32_t border_color, uint32_t border);

// OVERLAY_FORMAT_PALETTE_4BIT_DUAL: cells of cell_width columns showing
// palette index 0, 1, ... 15 left to right; the first half of the buffer
// holds the indices (pixel 0 in the low nibble), the second half the same
// bytes with their nibbles swapped, as the driver expects.
void paint_swatches(std::span<uint8_t> buffer, uint32_t width, uint32_t height,
                    uint32_t cell_width);

}  // namespace vcam
