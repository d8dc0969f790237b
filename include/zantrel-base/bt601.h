// The colour conversion of ".ovl" image files: BT.601 full range in 10-bit
// fixed point. The library's loader and ovlconv both convert through it, so
// that what the tool writes is what the camera computes.
#pragma once

#include <cstdint>

namespace zantrel {

struct Ycc {
  int32_t luma;
  int32_t cb;  // centred on 0
  int32_t cr;
};

// Right shifts of negative values round down (arithmetic shifts, as C++20
// guarantees).
constexpr Ycc bt601_ycc(int32_t r, int32_t g, int32_t b) {
  return {(306 * r + 601 * g + 117 * b) >> 10, (-173 * r - 339 * g + 512 * b) >> 10,
          (512 * r - 429 * g - 83 * b) >> 10};
}

}  // namespace zantrel
