// ".ovl" image files: the header helpers and the loaders that turn a file
// into one hardware overlay of OVERLAY_FORMAT_YCBCR_ALPHA.
//
// Every byte of a file is untrusted: the sizes in its header decide only how
// much is read when the file really holds that much, and nothing is written
// outside the overlay buffer that the driver handed out.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "common/log.h"
#include "device.h"
#include "gridfit.h"
#include "kept_overlays.h"
#include "zantrel-base/bt601.h"
#include "zantrel-base/io.h"
#include "zantrel-base/mapping.h"
#include "zantrel-base/unique_fd.h"

static_assert(sizeof(overlay_image{}.path) == GRIDFIT_PATH_SIZE);

namespace zantrel::device {
namespace {

constexpr size_t kHeaderSize = OVL_HEADER_SIZE;
using Header = std::array<uint8_t, kHeaderSize>;

constexpr uint8_t kVersion1 = '1';
constexpr uint8_t kVersion2 = '2';
constexpr uint8_t kVersionArgb = '4';
constexpr uint8_t kUnknownVersion = 255;
constexpr uint8_t kHeaderMarker = 16;

// Pixel format byte of the packed versions.
constexpr uint8_t kFormatPalette = 0;
constexpr uint8_t kFormatFull = 1;
constexpr uint8_t kFormatAlpha = 2;

constexpr uint8_t kOpaque = 255;
constexpr uint8_t kTransparent = 0;
// Stands in for the chroma value that a lone last pixel of an odd-width
// packed row does not carry.
constexpr uint8_t kNeutralChroma = 128;

uint16_t le16(const Header& header, size_t offset) {
  return static_cast<uint16_t>(header[offset] | (header[offset + 1] << 8));
}

// A hardware overlay that is destroyed again unless the load succeeds.
class PendingOverlay {
 public:
  explicit PendingOverlay(int device_fd) : fd_(device_fd) {}
  PendingOverlay(const PendingOverlay&) = delete;
  PendingOverlay& operator=(const PendingOverlay&) = delete;
  ~PendingOverlay() {
    if (id_ > 0) {
      destroy_or_keep(fd_, id_);
    }
  }

  int* id_output() noexcept { return &id_; }
  [[nodiscard]] int id() const noexcept { return id_; }
  int release() noexcept { return std::exchange(id_, 0); }

 private:
  int fd_;
  int id_ = 0;
};

// The four planes of an OVERLAY_FORMAT_YCBCR_ALPHA buffer of width x height
// pixels (both even), rows of `width` bytes in every plane.
struct Planes {
  size_t width;
  size_t height;
  std::span<uint8_t> luma;
  std::span<uint8_t> chroma_a;  // (Cr, Cb) per 2 x 2 block
  std::span<uint8_t> chroma_b;  // (Cb, Cr) per 2 x 2 block
  std::span<uint8_t> alpha;

  // Requires buffer.size() >= 3 * width * height.
  Planes(std::span<uint8_t> buffer, size_t w, size_t h) noexcept : width(w), height(h) {
    size_t n = w * h;
    luma = buffer.subspan(0, n);
    chroma_a = buffer.subspan(n, n / 2);
    chroma_b = buffer.subspan(n + n / 2, n / 2);
    alpha = buffer.subspan(2 * n, n);
  }

  // Stores the chroma pair of the pixel pair at x of an even row y.
  void set_chroma(size_t y, size_t x, uint8_t cr, uint8_t cb) noexcept {
    size_t at = (y / 2) * width + x;
    chroma_a[at] = cr;
    chroma_a[at + 1] = cb;
    chroma_b[at] = cb;
    chroma_b[at + 1] = cr;
  }

  // Folds the chroma pair of an odd row into the pair its even row stored.
  void blend_chroma(size_t y, size_t x, uint8_t cr, uint8_t cb) noexcept {
    size_t at = (y / 2) * width + x;
    auto blend = [](uint8_t& stored, uint8_t current) {
      stored = static_cast<uint8_t>((stored + current) >> 1);
    };
    blend(chroma_a[at], cr);
    blend(chroma_a[at + 1], cb);
    blend(chroma_b[at], cb);
    blend(chroma_b[at + 1], cr);
  }

  // Rows from `first_missing` on have no pixels in the file (the row added to
  // an odd height): they repeat the luma of the row above and are
  // transparent. Nothing is left as the driver handed the buffer out.
  void finish_added_rows(size_t first_missing) noexcept {
    for (size_t y = first_missing; y < height; ++y) {
      const auto row = luma.subspan(y * width, width);
      const auto row_alpha = alpha.subspan(y * width, width);
      for (size_t x = 0; x < width; ++x) {
        row[x] = y > 0 ? luma[(y - 1) * width + x] : uint8_t{0};
        row_alpha[x] = kTransparent;
      }
    }
  }
};

// Packed files (every version but '4'): groups of 4 bytes per pixel pair,
// chroma, luma, chroma, luma, read through one read-only mapping.
//
// A row of odd width ends in a lone pixel of 2 bytes, its first chroma value
// (Cr) and its luma; the pair's second chroma value (Cb) is taken as neutral.
// The column added to round the width up repeats that pixel's luma and is
// transparent, so nothing past the row's own bytes is ever read.
bool load_packed(int file_fd, uint32_t w, uint32_t h, uint32_t key, Planes& planes) noexcept {
  uint64_t length = kHeaderSize + uint64_t{w} * h * 2;
  Mapping file;
  if (length <= std::numeric_limits<size_t>::max()) {
    file = Mapping(file_fd, static_cast<size_t>(length), PROT_READ, 0);
  }
  if (!file) {
    log_message(LOG_ERR, "libzantrel: Failed to read data from overlay file.\n");
    return false;
  }
  std::span<const uint8_t> pixels = file.span().subspan(kHeaderSize);
  auto alpha_of = [key](uint8_t luma) {
    return (uint32_t{luma} << 8) == key ? kTransparent : kOpaque;
  };
  const size_t row_bytes = size_t{w} * 2;
  const size_t width = planes.width;
  const size_t rows = std::min<size_t>(h, planes.height);
  for (size_t y = 0; y < rows; ++y) {
    std::span<const uint8_t> row = pixels.subspan(y * row_bytes, row_bytes);
    uint8_t* luma = planes.luma.data() + y * width;
    uint8_t* alpha = planes.alpha.data() + y * width;
    for (size_t x = 0; x < width; x += 2) {
      bool lone = x + 1 >= w;
      const uint8_t* group = row.data() + x * 2;
      uint8_t first_chroma = group[0];
      uint8_t left = group[1];
      uint8_t second_chroma = lone ? kNeutralChroma : group[2];
      uint8_t right = lone ? left : group[3];
      luma[x] = left;
      luma[x + 1] = right;
      if (y % 2 == 0) {
        planes.set_chroma(y, x, first_chroma, second_chroma);
      }
      alpha[x] = alpha_of(left);
      alpha[x + 1] = lone ? kTransparent : alpha_of(right);
    }
  }
  planes.finish_added_rows(rows);
  return true;
}

// B, G, R, A in the file.
Ycc ycc_of(const uint8_t* bgra) noexcept { return bt601_ycc(bgra[2], bgra[1], bgra[0]); }

// ARGB files (version '4'): 4 bytes a pixel, B, G, R, A, read 8 bytes (one
// pixel pair) at a time. The lone last pixel of an odd-width row is read by
// itself and counts as both pixels of its pair; the column added to round the
// width up repeats its luma and is transparent.
bool load_argb(int file_fd, uint32_t w, uint32_t h, Planes& planes) noexcept {
  const size_t width = planes.width;
  const size_t rows = std::min<size_t>(h, planes.height);
  std::array<uint8_t, 8> pair{};
  for (size_t y = 0; y < rows; ++y) {
    uint8_t* luma = planes.luma.data() + y * width;
    uint8_t* alpha = planes.alpha.data() + y * width;
    for (size_t x = 0; x < width; x += 2) {
      bool lone = x + 1 >= w;
      if (!read_exactly(file_fd, pair.data(), lone ? 4 : 8)) {
        return false;
      }
      const uint8_t* right_pixel = lone ? pair.data() : pair.data() + 4;
      Ycc left = ycc_of(pair.data());
      Ycc right = ycc_of(right_pixel);
      luma[x] = static_cast<uint8_t>(left.luma);
      luma[x + 1] = static_cast<uint8_t>(right.luma);
      alpha[x] = pair[3];
      alpha[x + 1] = lone ? kTransparent : right_pixel[3];
      auto cb = static_cast<uint8_t>((left.cb + right.cb) / 2 + 128);
      auto cr = static_cast<uint8_t>((left.cr + right.cr) / 2 + 128);
      if (y % 2 == 0) {
        planes.set_chroma(y, x, cr, cb);
      } else {
        planes.blend_chroma(y, x, cr, cb);
      }
    }
  }
  planes.finish_added_rows(rows);
  return true;
}

// Fills the mapped overlay buffer from the file after its header. Logs its
// own failures.
bool fill_from_file(int file_fd, const Header& header, const char* path, uint32_t w, uint32_t h,
                    Planes& planes) noexcept {
  if (ovl_header_version(header.data()) == kVersionArgb) {
    if (!load_argb(file_fd, w, h, planes)) {
      log_message(LOG_ERR, "libzantrel: Failed to read data from overlay file.\n");
      log_message(LOG_ERR, "libzantrel: Failed to read OVERLAY_ARGB32, file path %s\n", path);
      return false;
    }
    return true;
  }

  // The size of the file that was opened and is about to be mapped, not of
  // whatever the path names by now.
  struct stat info {};
  if (fstat(file_fd, &info) != 0) {
    log_message(LOG_ERR, "libzantrel: Error getting info from ovl file: %s\n", error_text(errno));
    return false;
  }
  uint64_t expected = kHeaderSize + uint64_t{w} * h * 2;
  if (info.st_size < 0 || static_cast<uint64_t>(info.st_size) != expected) {
    log_message(LOG_ERR, "libzantrel: Ovl file %s have faulty size, might be corrupt\n", path);
    return false;
  }
  switch (header[4]) {
    case kFormatFull:
      if (!load_packed(file_fd, w, h, ovl_get_alpha(header.data()), planes)) {
        log_message(LOG_ERR, "libzantrel: Failed to read OVERLAY_FULL, file path %s\n", path);
        return false;
      }
      return true;
    case kFormatAlpha:
      if (!load_packed(file_fd, w, h, ovl_get_alpha(header.data()), planes)) {
        log_message(LOG_ERR, "libzantrel: Failed to read OVERLAY_ALPHA, file path: %s\n", path);
        return false;
      }
      return true;
    case kFormatPalette:
      log_message(LOG_ERR, "libzantrel: Trying to load an unsupported palette overlay.\n");
      [[fallthrough]];
    default:
      log_message(LOG_ERR, "libzantrel: Unkown overlay file format.\n");
      return false;
  }
}

int load_ovl_file(overlay_image& image, int device_fd, int* id, overlay_entry_data& data) noexcept {
  // The record's path is caller memory that need not hold its NUL.
  std::array<char, sizeof image.path + 1> path{};
  std::memcpy(path.data(), image.path, sizeof image.path);

  // Declared in this order so that every early return cleans up in reverse:
  // unmap the buffer, destroy the overlay, close the file.
  UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    log_message(LOG_ERR, "libzantrel: Failed to open overlay file. File path: %s\n", path.data());
    return -1;
  }
  PendingOverlay hardware(device_fd);
  Mapping buffer;

  Header header{};
  if (!read_exactly(file.get(), &header, sizeof header)) {
    log_message(LOG_ERR,
                "libzantrel: Overlay file is invalid, could not get header. File path: %s\n",
                path.data());
    return -1;
  }
  if (ovl_valid_header(header.data()) == 0) {
    log_message(LOG_ERR, "libzantrel: Overlay file is invalid, header is faulty\n");
    return -1;
  }

  // The overlay is rounded up to even sizes (kept to 16 bits); the entry
  // keeps the content size so that only the file's own pixels are shown.
  uint32_t w = le16(header, 6);
  uint32_t h = le16(header, 8);
  image.overlay.width = (w + 1) & 0xFFFEU;
  image.overlay.height = (h + 1) & 0xFFFEU;
  image.overlay.format = OVERLAY_FORMAT_YCBCR_ALPHA;
  image.overlay.nbr_buffers = 1;
  data.width = w;
  data.height = h;

  if (o_create_overlay(device_fd, &image.overlay, hardware.id_output(), &data) != 0) {
    log_message(LOG_ERR, "libzantrel: Could not allocate image overlay in HW\n");
    return -1;
  }

  // A driver that answers with a smaller buffer than the planes need is
  // treated like one that cannot hand out its buffer at all.
  uint64_t needed = uint64_t{image.overlay.width} * image.overlay.height * 3;
  int offset = o_get_overlay_buffer(device_fd, hardware.id());
  if (offset >= 0 && image.overlay.buffer_size >= needed) {
    buffer = Mapping(device_fd, image.overlay.buffer_size, PROT_READ | PROT_WRITE, offset);
  }
  if (!buffer) {
    log_message(LOG_ERR, "libzantrel: Failed to access internal overlay kernel data\n");
    return -1;
  }

  Planes planes(buffer.span(), image.overlay.width, image.overlay.height);
  if (!fill_from_file(file.get(), header, path.data(), w, h, planes)) {
    return -1;
  }

  buffer.reset();
  // A refused submission fails the load: the image would not be shown, and
  // a caller told of the failure can load it again.
  if (o_submit_overlay_buffer(device_fd, hardware.id(), offset, 0) != 0) {
    return -1;
  }
  file.reset();
  *id = hardware.release();
  return 0;
}

}  // namespace
}  // namespace zantrel::device

using namespace zantrel::device;  // NOLINT(google-build-using-namespace)
using zantrel::log_message;

extern "C" {

int ovl_valid_header(const uint8_t* header) {
  return header != nullptr && header[0] == 'o' && header[1] == 'g' && header[5] == kHeaderMarker
             ? 1
             : 0;
}

uint8_t ovl_header_version(const uint8_t* header) {
  if (header == nullptr) {
    return kUnknownVersion;
  }
  uint8_t version = header[2];
  return version == kVersion1 || version == kVersion2 || version == kVersionArgb ? version
                                                                                 : kUnknownVersion;
}

uint32_t ovl_get_alpha(const uint8_t* header) {
  if (header == nullptr) {
    return 0;
  }
  if (header[2] == kVersion1) {
    return (uint32_t{header[10]} << 24) | (uint32_t{header[11]} << 8);
  }
  return uint32_t{header[10]} << 8;
}

int o_create_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                         overlay_entry_data* data) {
  if (image == nullptr || id == nullptr || data == nullptr) {
    return -1;
  }
  return load_ovl_file(*image, fd, id, *data);
}

int o_create_scaled_image_overlay_from_ovl_file(overlay_image* image, int fd, int* id,
                                                unsigned int channel, uint32_t stream_width,
                                                uint32_t stream_height, overlay_entry_data* data) {
  if (image == nullptr || id == nullptr || data == nullptr) {
    return -1;
  }
  // Reserved outputs of the conversion: set, never read.
  int unused1 = 0;
  int unused2 = 0;
  if (gridfit_convert(image->path, static_cast<int>(channel), &unused1, &unused2,
                      static_cast<int>(stream_height), static_cast<int>(stream_width)) < 0) {
    return -1;
  }
  if (load_ovl_file(*image, fd, id, *data) != 0) {
    log_message(LOG_ERR, "libzantrel: Failed to create scalable image overlay\n");
    return -1;
  }
  return 0;
}

}  // extern "C"
