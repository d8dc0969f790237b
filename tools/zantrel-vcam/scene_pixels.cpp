#include "scene_pixels.h"

#include <array>

namespace vcam {

namespace {

void put16(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
  bytes[at] = static_cast<uint8_t>(value);
  bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}

void put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
  put16(bytes, at, value & 0xFFFF);
  put16(bytes, at + 2, value >> 16);
}

constexpr std::array<uint32_t, 8> kBars{0xFFFFFFFF, 0xFFFFFF00, 0xFF00FFFF, 0xFF00FF00,
                                        0xFFFF00FF, 0xFFFF0000, 0xFF0000FF, 0xFF000000};
constexpr uint32_t kFrame = 4;

}  // namespace

uint32_t test_bitmap_color(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
  if (x < kFrame || y < kFrame || x >= width - kFrame || y >= height - kFrame) {
    return 0xFFFFFFFF;
  }
  if (y < height * 2 / 3) {
    return kBars[x * kBars.size() / width];
  }
  const uint32_t grey = x * 255 / (width - 1);
  return 0xFF000000 | grey << 16 | grey << 8 | grey;
}

std::vector<uint8_t> make_test_bitmap(uint32_t width, uint32_t height) {
  constexpr size_t kHeaders = 14 + 40;
  const size_t stride = (width * 3 + 3) / 4 * 4;
  std::vector<uint8_t> bytes(kHeaders + stride * height);
  bytes[0] = 'B';
  bytes[1] = 'M';
  put32(bytes, 2, static_cast<uint32_t>(bytes.size()));
  put32(bytes, 10, kHeaders);
  put32(bytes, 14, 40);
  put32(bytes, 18, width);
  put32(bytes, 22, height);  // positive: the last row comes first
  put16(bytes, 26, 1);       // planes
  put16(bytes, 28, 24);      // bits a pixel
  put32(bytes, 34, static_cast<uint32_t>(stride * height));
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* row = bytes.data() + kHeaders + (height - 1 - y) * stride;
    for (uint32_t x = 0; x < width; ++x) {
      const uint32_t color = test_bitmap_color(x, y, width, height);
      row[3 * x] = static_cast<uint8_t>(color);           // blue
      row[3 * x + 1] = static_cast<uint8_t>(color >> 8);  // green
      row[3 * x + 2] = static_cast<uint8_t>(color >> 16);
    }
  }
  return bytes;
}

void paint_framed(std::span<uint32_t> pixels, uint32_t width, uint32_t height, uint32_t fill,
                  uint32_t border_color, uint32_t border) {
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      const size_t at = static_cast<size_t>(y) * width + x;
      if (at >= pixels.size()) {
        return;
      }
      const bool edge = x < border || y < border || x >= width - border || y >= height - border;
      pixels[at] = edge ? border_color : fill;
    }
  }
}

void paint_swatches(std::span<uint8_t> buffer, uint32_t width, uint32_t height,
                    uint32_t cell_width) {
  const size_t half = static_cast<size_t>(width) * height / 2;
  if (buffer.size() < 2 * half || cell_width == 0) {
    return;
  }
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; x += 2) {
      const auto index = [&](uint32_t column) {
        return static_cast<uint8_t>((column / cell_width) & 0x0F);
      };
      const auto byte = static_cast<uint8_t>(index(x) | index(x + 1) << 4);
      const size_t at = (static_cast<size_t>(y) * width + x) / 2;
      buffer[at] = byte;
      buffer[half + at] = static_cast<uint8_t>(byte << 4 | byte >> 4);
    }
  }
}

}  // namespace vcam
