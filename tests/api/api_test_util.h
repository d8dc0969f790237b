// Helpers of the API tests: the simulated driver's live state and a plain
// overlay description.
#pragma once

#include "camsim.h"
#include "test_support.h"
#include "zantrel.h"

namespace api_test {

using zantrel::test::table_files;

inline overlay plain(uint32_t width, uint32_t height, int32_t priority = 0,
                     overlay_format format = OVERLAY_FORMAT_ARGB32) {
  overlay ovl{};
  ovl.priority = priority;
  ovl.width = width;
  ovl.height = height;
  ovl.nbr_buffers = 1;
  ovl.format = format;
  ovl.position = {0, 0, 1, 1, 0};
  return ovl;
}

}  // namespace api_test
