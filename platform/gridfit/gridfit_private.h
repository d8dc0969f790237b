// Pieces of the bitmap-to-".ovl" conversion, kept apart so each has one job:
// reading the bitmap, scaling it, and keeping the converted files.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gridfit {

// Cairo's image surfaces stop at 32767 pixels a side; the pixel cap keeps a
// hostile bitmap or stream size from costing more than a few hundred MB.
inline constexpr int kMaxSide = 32767;
inline constexpr std::int64_t kMaxPixels = std::int64_t{1} << 24;

// Rows top to bottom; every pixel a 32-bit ARGB word with straight (not
// premultiplied) alpha, which is what ".ovl" files hold.
struct Image {
  int width = 0;
  int height = 0;
  std::vector<std::uint32_t> argb;
};

// fd: the open bitmap; file_size: its size, the bound of every read.
std::optional<Image> read_bmp(int fd, std::uint64_t file_size);

std::optional<Image> scale_image(const Image& source, int width, int height);

// Where the converted file for this image directory and stream lives.
struct CachePlace {
  std::string dir;
  std::string file;
};
std::optional<CachePlace> cache_place(const char* image_dir, int stream_width, int stream_height);
// True when the file at place was converted from this bitmap file as it is now.
bool cache_fresh(const CachePlace& place, const struct stat& bitmap);
bool cache_store(const CachePlace& place, const Image& image, const struct stat& bitmap);

}  // namespace gridfit
