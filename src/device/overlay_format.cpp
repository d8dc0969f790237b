// The overlay description's pixel formats and the position arithmetic that
// turns a description into the driver's coordinates.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "common/log.h"
#include "device.h"
#include "zantrel.h"

namespace zantrel::device {
namespace {

constexpr int32_t kNoInternalType = -2;
constexpr float kNormalizedScale = 16384.0F;

// Driver type of each format value 0 to 11; formats without one are never
// handed to the driver.
constexpr std::array<int32_t, 12> kInternalType = {
    1, 3, 2, 0, 5, kNoInternalType, kNoInternalType, 4, 6, kNoInternalType, 7, 8};
static_assert(kInternalType[OVERLAY_FORMAT_20BIT] == 7);
static_assert(kInternalType[OVERLAY_FORMAT_YCBCR_ALPHA] == 8);
static_assert(kInternalType[OVERLAY_FORMAT_PALETTE_8BIT] == kNoInternalType);

// Buffer sizes are defined in 32-bit signed arithmetic that wraps, as the
// driver computes them; doing the products unsigned keeps that exact without
// signed overflow.
constexpr int32_t mul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

constexpr int32_t full_color_size(int32_t w, int32_t h) { return mul(mul(w, h), 3) / 2; }

// Float to unsigned 32-bit, truncating toward zero and saturating.
uint32_t to_u32(float value) {
  if (!(value > 0.0F)) {
    return 0;
  }
  if (value >= 4294967296.0F) {
    return std::numeric_limits<uint32_t>::max();
  }
  return static_cast<uint32_t>(value);
}

bool is_fraction(float value) { return value >= 0.0F && value <= 1.0F; }

}  // namespace

int32_t internal_type(overlay_format format) {
  int32_t type = format < kInternalType.size() ? kInternalType[format] : kNoInternalType;
  if (type == kNoInternalType) {
    log_message(LOG_ERR, "libzantrel: Overlay format not supported / implemented.\n");
  }
  return type;
}

}  // namespace zantrel::device

using zantrel::device::full_color_size;
using zantrel::device::mul;

extern "C" {

int32_t o_get_overlay_internal_type(overlay_format format) {
  return zantrel::device::internal_type(format);
}

int32_t o_get_nbr_internal_slots(overlay_format format) {
  int32_t type = zantrel::device::internal_type(format);
  return type == 7 || type == 8 ? 2 : 1;
}

int32_t o_calculate_overlay_size(uint32_t width, uint32_t height, overlay_format format) {
  auto w = static_cast<int32_t>(width);
  auto h = static_cast<int32_t>(height);
  switch (format) {
    case OVERLAY_FORMAT_FULL_COLOR:
      return full_color_size(w, h);
    case OVERLAY_FORMAT_16BIT:
      return mul(mul(w, h), 2);
    case OVERLAY_FORMAT_8BIT:
    case OVERLAY_FORMAT_PALETTE_4BIT_DUAL:
      return mul(w, h);
    case OVERLAY_FORMAT_PALETTE_4BIT:
      return mul(w, h) / 2;
    case OVERLAY_FORMAT_ARGB32:
      return mul(mul(w, h), 4);
    case OVERLAY_FORMAT_1BIT:
      return mul(static_cast<int32_t>(static_cast<uint32_t>(w) + 7U) >> 3, h);
    case OVERLAY_FORMAT_20BIT:
      return mul(mul(w, h), 20) / 8;
    case OVERLAY_FORMAT_YCBCR_ALPHA:
      return mul(mul(w, h), 3);
    default:
      zantrel::log_message(LOG_ERR,
                           "libzantrel: Overlay format is not known or implemented. Assuming same "
                           "size as OVERLAY_FORMAT_FULL_COLOR.\n");
      return full_color_size(w, h);
  }
}

void o_set_standard_palette(internal_overlay* out, const overlay* in) {
  if (out == nullptr || in == nullptr) {
    return;
  }
  out->palette_bank = in->palette_bank;
  if (in->format == OVERLAY_FORMAT_1BIT) {
    std::copy(std::begin(in->palette_colors), std::end(in->palette_colors), out->palette_colors);
  }
}

int o_calculate_overlay_position(internal_overlay* rec, const overlay_position* pos,
                                 uint32_t content_width, uint32_t content_height) {
  using zantrel::device::is_fraction;
  using zantrel::device::to_u32;
  if (rec == nullptr || pos == nullptr) {
    return -2;
  }
  uint32_t shown_width = std::min(content_width, rec->width);
  uint32_t shown_height = std::min(content_height, rec->height);

  // A NaN compares false everywhere; refuse it rather than let it through
  // as position 0.
  float x = pos->x;
  float y = pos->y;
  if (!(x >= 0.0F) || !(y >= 0.0F)) {
    return -2;
  }
  if (!is_fraction(pos->visible_width) || !is_fraction(pos->visible_height)) {
    return -2;
  }
  if (pos->coord_type == OVERLAY_COORDS_NORMALIZED) {
    if (x > 1.0F || y > 1.0F) {
      return -2;
    }
    x *= zantrel::device::kNormalizedScale;
    y *= zantrel::device::kNormalizedScale;
  }
  rec->coord_type = pos->coord_type;
  rec->x = to_u32(x);
  rec->y = to_u32(y);
  rec->visible_width =
      to_u32(static_cast<float>(static_cast<int32_t>(shown_width)) * pos->visible_width);
  rec->visible_height =
      to_u32(static_cast<float>(static_cast<int32_t>(shown_height)) * pos->visible_height);
  return 0;
}

}  // extern "C"
