// The 16-colour palette: the default colours, the named text colours, and
// loading colours into the driver's two banks in its YCbCr form.
#include <cstdint>
#include <cstring>
#include <iterator>

#include "common/log.h"
#include "device.h"
#include "zantrel.h"

extern "C" {

const uint32_t static_palette[OVERLAY_PALETTE_SIZE] = {
    0xFFFFFFFF, 0xFF000000, 0xFFFF0000, 0xFF494949, 0x49000000, 0x00000000, 0xB6B6B6B6, 0x6D6D6D6D,
    0x24242424, 0xB6000000, 0xB6B60000, 0x49490000, 0xFFB6B6B6, 0xFFFFB6B6, 0xFFFF4949, 0x00000000,
};

const int32_t rgb2ycbcr[9] = {
    19595,  38470,  7471,   // Y
    -11058, -21710, 32768,  // Cb
    32768,  -27439, -5329,  // Cr
};

}  // extern "C"

namespace zantrel::device {
namespace {

constexpr uint8_t kStandardBank = 0;
constexpr uint8_t kUserBank = 1;
// The default palette loads entries 0 to 14; the driver keeps its own 15.
constexpr int kDefaultEntries = 15;

// Palette index of each overlay_color value.
constexpr uint8_t kColorIndex[] = {1, 0, 2, 5, 4, 3};

// coefficient * component / 65536, rounded half up on the full product.
constexpr int32_t rnd(int32_t coefficient, uint8_t component) {
  int64_t product = static_cast<int64_t>(coefficient) * component;
  return static_cast<int32_t>(((product >> 15) + 1) >> 1);
}

constexpr uint8_t clamp_chroma(int32_t value) {
  return value > 255 ? 255 : static_cast<uint8_t>(value);
}

int send_color(int fd, const cam_palette_color& record) {
  cam_palette_color copy = record;
  return device_ioctl(fd, CAM_IOC_SET_PALETTE_COLOR, &copy);
}

}  // namespace

void palette_argb_to_ycbcr(cam_palette_color* out, uint32_t argb) {
  auto a = static_cast<uint8_t>(argb >> 24);
  auto r = static_cast<uint8_t>(argb >> 16);
  auto g = static_cast<uint8_t>(argb >> 8);
  auto b = static_cast<uint8_t>(argb);
  const int32_t* k = rgb2ycbcr;
  // Each term is rounded by itself, which keeps luma within 0 to 255 and the
  // chroma within 0 to 256.
  out->luma = static_cast<uint8_t>(rnd(k[0], r) + rnd(k[1], g) + rnd(k[2], b));
  out->cb = clamp_chroma(128 + rnd(k[3], r) + rnd(k[4], g) + rnd(k[5], b));
  out->cr = clamp_chroma(128 + rnd(k[6], r) + rnd(k[7], g) + rnd(k[8], b));
  out->alpha = a;
}

}  // namespace zantrel::device

extern "C" {

int palette_set_default(int fd) {
  // Every colour of both banks counts: one refused command leaves a bank
  // with a wrong colour.
  bool refused = false;
  for (int index = 0; index < zantrel::device::kDefaultEntries; ++index) {
    cam_palette_color record{};
    zantrel::device::palette_argb_to_ycbcr(&record, static_palette[index]);
    record.index = static_cast<uint8_t>(index);
    record.bank = zantrel::device::kStandardBank;
    refused = zantrel::device::send_color(fd, record) < 0 || refused;
    record.bank = zantrel::device::kUserBank;
    refused = zantrel::device::send_color(fd, record) < 0 || refused;
  }
  return refused ? -1 : 0;
}

int palette_get_default(const uint32_t** colors, int* first) {
  if (colors != nullptr) {
    *colors = static_palette;
  }
  if (first != nullptr) {
    *first = 0;
  }
  return OVERLAY_PALETTE_SIZE;
}

int palette_set_color_argb(int fd, uint32_t argb, int index, int flag) {
  if (static_cast<unsigned>(index) >= OVERLAY_PALETTE_SIZE) {
    zantrel::log_message(
        LOG_ERR, "libzantrel: Invalid index when setting palette, must be < 16. Was %d.\n", index);
    return -1;
  }
  cam_palette_color record{};
  zantrel::device::palette_argb_to_ycbcr(&record, argb);
  record.index = static_cast<uint8_t>(index);
  record.flag = static_cast<uint8_t>(flag);
  record.bank = zantrel::device::kUserBank;
  if (zantrel::device::send_color(fd, record) < 0) {
    zantrel::log_message(LOG_ERR, "libzantrel: Could not set palette color at index %d, bank %d.\n",
                         index, zantrel::device::kUserBank);
    return -1;
  }
  return 0;
}

int32_t palette_get_color(int index) {
  // The table has 16 entries; an index past it is as invalid as a negative one.
  if (index < 0 || index >= OVERLAY_PALETTE_SIZE) {
    zantrel::log_message(LOG_ERR, "libzantrel: Not a valid index\n");
    return -1;
  }
  return static_cast<int32_t>(static_palette[index]);
}

int palette_get_color_index(overlay_color color) {
  if (color >= std::size(zantrel::device::kColorIndex)) {
    zantrel::log_message(LOG_ERR, "libzantrel: Not a valid overlay color\n");
    return -1;
  }
  return zantrel::device::kColorIndex[color];
}

}  // extern "C"
