// Reads uncompressed 24- and 32-bit Windows bitmaps. Every size and offset in
// the headers is checked against the file's size before anything is read, so
// a damaged or hostile file is refused rather than read past its end.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "gridfit_private.h"
#include "zantrel-base/io.h"

namespace gridfit {
namespace {

constexpr std::size_t kFileHeaderSize = 14;
constexpr std::size_t kInfoHeaderSize = 40;
// The largest known info header (BITMAPV5HEADER) plus four masks after a
// plain info header: everything parse_layout ever looks at.
constexpr std::size_t kMaxHeadSize = kFileHeaderSize + 124 + 16;

constexpr std::uint32_t kBiRgb = 0;
constexpr std::uint32_t kBiBitfields = 3;
constexpr std::uint32_t kBiAlphaBitfields = 6;

constexpr std::uint32_t kRedMask = 0x00FF0000;
constexpr std::uint32_t kGreenMask = 0x0000FF00;
constexpr std::uint32_t kBlueMask = 0x000000FF;
constexpr std::uint32_t kAlphaMask = 0xFF000000;

struct Layout {
  int width = 0;
  int height = 0;
  bool top_down = false;
  int bytes_per_pixel = 0;
  bool alpha = false;
  std::uint64_t offset = 0;
  std::uint64_t stride = 0;
};

std::uint32_t le32(std::span<const std::uint8_t> b, std::size_t pos) {
  return std::uint32_t{b[pos]} | std::uint32_t{b[pos + 1]} << 8 | std::uint32_t{b[pos + 2]} << 16 |
         std::uint32_t{b[pos + 3]} << 24;
}

std::uint16_t le16(std::span<const std::uint8_t> b, std::size_t pos) {
  return static_cast<std::uint16_t>(b[pos] | b[pos + 1] << 8);
}

bool known_info_size(std::uint32_t size) {
  // BITMAPINFOHEADER, its V2 and V3 extensions (masks inside the header), V4, V5.
  constexpr std::array<std::uint32_t, 5> kSizes{40, 52, 56, 108, 124};
  for (std::uint32_t s : kSizes) {
    if (s == size) {
      return true;
    }
  }
  return false;
}

// A file that ends early is as unusable as one that cannot be read.
bool read_exactly(int fd, std::uint64_t pos, std::span<std::uint8_t> out) {
  return zantrel::pread_exactly(fd, out.data(), out.size(), static_cast<off_t>(pos));
}

// head holds the file's first bytes, up to kMaxHeadSize of them.
std::optional<Layout> parse_layout(std::span<const std::uint8_t> head, std::uint64_t file_size) {
  if (head.size() < kFileHeaderSize + kInfoHeaderSize || head[0] != 'B' || head[1] != 'M') {
    return std::nullopt;
  }
  // The file header's own size field is not used: writers disagree on it, and
  // the real size is known.
  const std::uint64_t offset = le32(head, 10);
  const std::uint32_t info_size = le32(head, 14);
  if (!known_info_size(info_size) || kFileHeaderSize + info_size > head.size()) {
    return std::nullopt;
  }
  const auto width = static_cast<std::int32_t>(le32(head, 18));
  const auto raw_height = static_cast<std::int32_t>(le32(head, 22));
  const std::uint16_t bits = le16(head, 28);
  const std::uint32_t compression = le32(head, 30);

  // Magnitude in 64 bits: negating INT32_MIN does not fit in 32.
  const std::int64_t height = raw_height < 0 ? -std::int64_t{raw_height} : raw_height;
  if (width <= 0 || height == 0 || width > kMaxSide || height > kMaxSide ||
      std::int64_t{width} * height > kMaxPixels) {
    return std::nullopt;
  }

  Layout layout;
  layout.width = width;
  layout.height = static_cast<int>(height);
  layout.top_down = raw_height < 0;

  // With a plain info header the masks, when the compression asks for them,
  // follow it; later headers carry them inside.
  std::size_t masks_end = kFileHeaderSize + info_size;
  bool has_rgb_masks = info_size >= 52;
  bool has_alpha_mask = info_size >= 56;
  if (bits == 24) {
    if (compression != kBiRgb) {
      return std::nullopt;
    }
  } else if (bits == 32) {
    if (compression != kBiRgb && compression != kBiBitfields && compression != kBiAlphaBitfields) {
      return std::nullopt;
    }
    if (info_size == kInfoHeaderSize && compression != kBiRgb) {
      has_rgb_masks = true;
      has_alpha_mask = compression == kBiAlphaBitfields;
      masks_end += has_alpha_mask ? 16 : 12;
      if (masks_end > head.size()) {
        return std::nullopt;
      }
    }
    const std::size_t masks = kFileHeaderSize + kInfoHeaderSize;
    const std::uint32_t alpha_mask = has_alpha_mask ? le32(head, masks + 12) : 0;
    if (compression != kBiRgb) {
      if (!has_rgb_masks || le32(head, masks) != kRedMask || le32(head, masks + 4) != kGreenMask ||
          le32(head, masks + 8) != kBlueMask || (alpha_mask != 0 && alpha_mask != kAlphaMask)) {
        return std::nullopt;
      }
    }
    layout.alpha = alpha_mask == kAlphaMask;
  } else {
    return std::nullopt;
  }
  layout.bytes_per_pixel = bits / 8;

  // Rows are padded to whole 32-bit words.
  layout.stride = (std::uint64_t{static_cast<std::uint32_t>(width)} * bits + 31) / 32 * 4;
  layout.offset = offset;
  if (offset < masks_end || offset > file_size ||
      layout.stride * layout.height > file_size - offset) {
    return std::nullopt;
  }
  return layout;
}

}  // namespace

std::optional<Image> read_bmp(int fd, std::uint64_t file_size) {
  std::vector<std::uint8_t> head(file_size < kMaxHeadSize ? file_size : kMaxHeadSize);
  if (!read_exactly(fd, 0, head)) {
    return std::nullopt;
  }
  const std::optional<Layout> layout = parse_layout(head, file_size);
  if (!layout) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> pixels(layout->stride * layout->height);
  if (!read_exactly(fd, layout->offset, pixels)) {
    return std::nullopt;
  }

  Image image;
  image.width = layout->width;
  image.height = layout->height;
  image.argb.resize(static_cast<std::size_t>(image.width) * image.height);
  const std::span<const std::uint8_t> data(pixels);
  for (int y = 0; y < image.height; ++y) {
    const int file_row = layout->top_down ? y : image.height - 1 - y;
    const auto row = data.subspan(file_row * layout->stride, layout->stride);
    std::uint32_t* out = &image.argb[static_cast<std::size_t>(y) * image.width];
    for (int x = 0; x < image.width; ++x) {
      const auto px = row.subspan(static_cast<std::size_t>(x) * layout->bytes_per_pixel,
                                  layout->bytes_per_pixel);
      const std::uint32_t alpha = layout->alpha ? px[3] : 0xFF;
      out[x] = alpha << 24 | std::uint32_t{px[2]} << 16 | std::uint32_t{px[1]} << 8 | px[0];
    }
  }
  return image;
}

}  // namespace gridfit
