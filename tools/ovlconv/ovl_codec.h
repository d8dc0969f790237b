// The ".ovl" image format as ovlconv writes and reads it: a 78-byte header,
// then packed luma/chroma pixels (versions '1' to '3') or B, G, R, A bytes
// (version '4'). Failures throw ovlconv::Error with a one-line message.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace ovlconv {

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline constexpr uint32_t kMaxSide = 65535;

// Pixels as 0xAARRGGBB words, not premultiplied, rows top to bottom.
struct Image {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint32_t> argb;
};

// Version '4', every pixel as it is.
std::vector<uint8_t> encode_argb(const Image& image);

// Version '2' with the luma `key` marking transparent pixels (alpha below
// 128). Opaque pixels whose luma is the key move one step away from it.
// Pixel format 2 when some pixel is transparent, else 1.
std::vector<uint8_t> encode_packed(const Image& image, uint8_t key);

// Versions '1' to '4'; packed key pixels come back fully transparent.
Image decode(std::span<const uint8_t> file);

}  // namespace ovlconv
