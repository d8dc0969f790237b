#include "ovl_codec.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "zantrel-base/bt601.h"

namespace ovlconv {
namespace {

constexpr size_t kHeaderSize = 78;
constexpr uint8_t kMarker = 16;  // byte 5 of every header
constexpr uint8_t kFormatPalette = 0;
constexpr uint8_t kFormatFull = 1;
constexpr uint8_t kFormatAlpha = 2;
constexpr int kNeutral = 128;

using zantrel::Ycc;

// The camera library's conversion, so that what this tool writes is what the
// camera would compute.
Ycc ycc_of(uint32_t argb) {
  return zantrel::bt601_ycc(static_cast<int32_t>((argb >> 16) & 0xFF),
                            static_cast<int32_t>((argb >> 8) & 0xFF),
                            static_cast<int32_t>(argb & 0xFF));
}

uint32_t argb_of(int luma, int cb, int cr) {
  auto channel = [](double value) {
    return static_cast<uint32_t>(std::clamp(std::lround(value), 0L, 255L));
  };
  double u = cb - kNeutral;
  double v = cr - kNeutral;
  return 0xFF000000U | channel(luma + 1.402 * v) << 16 |
         channel(luma - 0.344136 * u - 0.714136 * v) << 8 | channel(luma + 1.772 * u);
}

bool opaque(uint32_t argb) { return (argb >> 24) >= 128; }

std::vector<uint8_t> header(char version, uint8_t format, uint32_t width, uint32_t height,
                            uint8_t key) {
  std::vector<uint8_t> bytes(kHeaderSize, 0);
  bytes[0] = 'o';
  bytes[1] = 'g';
  bytes[2] = static_cast<uint8_t>(version);
  bytes[4] = format;
  bytes[5] = kMarker;
  bytes[6] = static_cast<uint8_t>(width);
  bytes[7] = static_cast<uint8_t>(width >> 8);
  bytes[8] = static_cast<uint8_t>(height);
  bytes[9] = static_cast<uint8_t>(height >> 8);
  bytes[10] = key;
  return bytes;
}

void check_size(const Image& image) {
  if (image.width > kMaxSide || image.height > kMaxSide) {
    throw Error("image is " + std::to_string(image.width) + " x " + std::to_string(image.height) +
                " pixels; an .ovl image holds at most 65535 x 65535");
  }
}

}  // namespace

std::vector<uint8_t> encode_argb(const Image& image) {
  check_size(image);
  std::vector<uint8_t> file = header('4', 0, image.width, image.height, 0);
  file.reserve(kHeaderSize + image.argb.size() * 4);
  for (uint32_t argb : image.argb) {
    for (int shift : {0, 8, 16, 24}) {
      file.push_back(static_cast<uint8_t>(argb >> shift));
    }
  }
  return file;
}

// Each pixel pair carries one chroma pair: that of its opaque pixels (the
// colour of a transparent one means nothing), neutral when both are
// transparent. A row of odd width ends in a lone pixel of 2 bytes, its Cr and
// its luma, which is all the row's w x 2 bytes leave room for.
std::vector<uint8_t> encode_packed(const Image& image, uint8_t key) {
  check_size(image);
  bool any_transparent = std::any_of(image.argb.begin(), image.argb.end(),
                                     [](uint32_t argb) { return !opaque(argb); });
  std::vector<uint8_t> file =
      header('2', any_transparent ? kFormatAlpha : kFormatFull, image.width, image.height, key);
  file.reserve(kHeaderSize + image.argb.size() * 2);
  auto luma_of = [key](uint32_t argb, const Ycc& ycc) {
    if (!opaque(argb)) {
      return key;
    }
    auto luma = static_cast<uint8_t>(ycc.luma);
    return luma != key ? luma : static_cast<uint8_t>(key < 255 ? key + 1 : key - 1);
  };
  const uint32_t w = image.width;
  for (uint32_t y = 0; y < image.height; ++y) {
    const uint32_t* row = image.argb.data() + size_t{y} * w;
    for (uint32_t x = 0; x < w; x += 2) {
      bool lone = x + 1 >= w;
      uint32_t left = row[x];
      uint32_t right = lone ? left : row[x + 1];
      Ycc l = ycc_of(left);
      Ycc r = ycc_of(right);
      int cb = kNeutral;
      int cr = kNeutral;
      if (opaque(left) && opaque(right)) {
        cb += (l.cb + r.cb) / 2;
        cr += (l.cr + r.cr) / 2;
      } else if (opaque(left) || opaque(right)) {
        const Ycc& only = opaque(left) ? l : r;
        cb += only.cb;
        cr += only.cr;
      }
      file.push_back(static_cast<uint8_t>(cr));
      file.push_back(luma_of(left, l));
      if (!lone) {
        file.push_back(static_cast<uint8_t>(cb));
        file.push_back(luma_of(right, r));
      }
    }
  }
  return file;
}

Image decode(std::span<const uint8_t> file) {
  if (file.size() < kHeaderSize) {
    throw Error("too short for an .ovl header (" + std::to_string(file.size()) + " bytes)");
  }
  if (file[0] != 'o' || file[1] != 'g' || file[5] != kMarker) {
    throw Error("not an .ovl file (bad header)");
  }
  Image image;
  image.width = file[6] | file[7] << 8;
  image.height = file[8] | file[9] << 8;
  const uint32_t w = image.width;
  const uint64_t pixels = uint64_t{w} * image.height;
  std::span<const uint8_t> data = file.subspan(kHeaderSize);
  uint8_t version = file[2];

  if (version == '4') {
    if (data.size() < pixels * 4) {
      throw Error("ARGB pixel data is short: " + std::to_string(data.size()) + " bytes, " +
                  std::to_string(pixels * 4) + " needed");
    }
    image.argb.resize(pixels);
    for (size_t i = 0; i < pixels; ++i) {
      const uint8_t* p = data.data() + i * 4;
      image.argb[i] = uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
    }
    return image;
  }
  if (version < '1' || version > '3') {
    throw Error("unknown .ovl version byte " + std::to_string(version));
  }
  uint8_t format = file[4];
  if (format == kFormatPalette) {
    throw Error("palette .ovl images are not supported");
  }
  if (format != kFormatFull && format != kFormatAlpha) {
    throw Error("unknown pixel format " + std::to_string(format));
  }
  if (data.size() != pixels * 2) {
    throw Error("file is " + std::to_string(file.size()) + " bytes; a packed " + std::to_string(w) +
                " x " + std::to_string(image.height) + " image is " +
                std::to_string(kHeaderSize + pixels * 2));
  }
  image.argb.resize(pixels);
  // The key compared with (luma << 8): version '1' keeps it in bytes 10 and
  // 11, the others in byte 10.
  uint32_t key =
      version == '1' ? uint32_t{file[10]} << 24 | uint32_t{file[11]} << 8 : uint32_t{file[10]} << 8;
  for (uint32_t y = 0; y < image.height; ++y) {
    const uint8_t* row = data.data() + size_t{y} * w * 2;
    uint32_t* out = image.argb.data() + size_t{y} * w;
    for (uint32_t x = 0; x < w; x += 2) {
      bool lone = x + 1 >= w;
      const uint8_t* group = row + size_t{x} * 2;
      int cr = group[0];
      int cb = lone ? kNeutral : group[2];
      for (uint32_t i = 0; i < (lone ? 1U : 2U); ++i) {
        uint8_t luma = group[1 + 2 * i];
        out[x + i] = (uint32_t{luma} << 8) == key ? 0 : argb_of(luma, cb, cr);
      }
    }
  }
  return image;
}

}  // namespace ovlconv
