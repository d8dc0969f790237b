// The overlay description's pixel formats, standard palette and position
// arithmetic.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <limits>
#include <tuple>

#include "camsim.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;
const char* const kUnknownSize =
    "libzantrel: Overlay format is not known or implemented. Assuming same size as "
    "OVERLAY_FORMAT_FULL_COLOR.\n";

TEST(FormatTable, TypeSlotsAndSize) {
  // format, internal type (-2: none), slots, width, height, size
  const std::tuple<overlay_format, int32_t, int32_t, uint32_t, uint32_t, int32_t> cases[] = {
      {OVERLAY_FORMAT_FULL_COLOR, 1, 1, 3, 3, 13},
      {OVERLAY_FORMAT_16BIT, 3, 1, 5, 3, 30},
      {OVERLAY_FORMAT_8BIT, 2, 1, 5, 3, 15},
      {OVERLAY_FORMAT_PALETTE_4BIT, 0, 1, 5, 3, 7},
      {OVERLAY_FORMAT_PALETTE_4BIT_DUAL, 5, 1, 5, 3, 15},
      {5, -2, 1, 3, 3, 13},
      {6, -2, 1, 2, 2, 6},
      {OVERLAY_FORMAT_ARGB32, 4, 1, 5, 3, 60},
      {OVERLAY_FORMAT_1BIT, 6, 1, 7, 5, 5},
      {OVERLAY_FORMAT_1BIT, 6, 1, 9, 2, 4},
      {OVERLAY_FORMAT_PALETTE_8BIT, -2, 1, 3, 3, 13},
      {OVERLAY_FORMAT_20BIT, 7, 2, 2, 2, 10},
      {OVERLAY_FORMAT_YCBCR_ALPHA, 8, 2, 5, 3, 45},
      {12, -2, 1, 3, 3, 13},
      {0xFFFFFFFFU, -2, 1, 3, 3, 13}};
  for (const auto& [format, type, slots, width, height, size] : cases) {
    clear_captured_logs();
    EXPECT_EQ(std::tuple(o_get_overlay_internal_type(format), o_get_nbr_internal_slots(format),
                         o_calculate_overlay_size(width, height, format)),
              std::tuple(type, slots, size))
        << "format " << format;
    // Two lookups of the type, each logging once when there is none.
    EXPECT_EQ(captured_logs().size(), type >= 0 ? 0U : 3U) << "format " << format;
    EXPECT_TRUE(type >= 0 || logged_once(LOG_ERR, kUnknownSize)) << "format " << format;
  }
}

TEST(StandardPalette, CopiesColoursOnlyForOneBit) {
  overlay ovl{};
  ovl.palette_bank = 1;
  ovl.palette_colors[0] = 0x11;
  ovl.palette_colors[3] = 0x44;
  internal_overlay rec{};
  rec.palette_colors[0] = 0xAA;
  ovl.format = OVERLAY_FORMAT_PALETTE_4BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(std::tuple(rec.palette_bank, rec.palette_colors[0]), std::tuple(1U, 0xAAU));
  ovl.format = OVERLAY_FORMAT_1BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(std::tuple(rec.palette_colors[0], rec.palette_colors[3]), std::tuple(0x11U, 0x44U));
}

TEST(Position, Calculation) {
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  constexpr uint32_t kNorm = OVERLAY_COORDS_NORMALIZED;
  struct Case {
    const char* name;
    overlay_position pos;
    uint32_t content_width;
    int result;
    uint32_t x = 0, y = 0, visible_width = 0, visible_height = 0;
  };
  const Case cases[] = {
      {"origin_pixels", {0, 0, 1, 1, 0}, 640, 0, 0, 0, 640, 400},
      {"origin_normalized", {0, 0, 1, 1, kNorm}, 640, 0, 0, 0, 640, 400},
      {"normalized_one", {1, 0.5F, 1, 1, kNorm}, 640, 0, 16384, 8192, 640, 400},
      {"normalized_above_one", {1.0001F, 0, 1, 1, kNorm}, 640, -2},
      {"normalized_y_above_one", {0, 1.5F, 1, 1, kNorm}, 640, -2},
      {"pixel_fraction_truncates", {1.5F, 2.9F, 1, 1, 0}, 640, 0, 1, 2, 640, 400},
      {"pixels_above_one", {700, 500, 1, 1, 3}, 640, 0, 700, 500, 640, 400},
      {"negative_x", {-0.5F, 0, 1, 1, 0}, 640, -2},
      {"negative_y", {0, -1, 1, 1, kNorm}, 640, -2},
      {"visible_zero", {0, 0, 0, 0, 0}, 640, 0, 0, 0, 0, 0},
      {"visible_above_one", {0, 0, 1.01F, 1, 0}, 640, -2},
      {"visible_height_negative", {0, 0, 1, -0.1F, 0}, 640, -2},
      {"content_clipped_to_overlay", {0, 0, 0.5F, 0.5F, 0}, 700, 0, 0, 0, 320, 200},
      {"nan_refused", {kNaN, 0, 1, 1, 0}, 640, -2},
      {"huge_pixels_saturate", {1e12F, 0, 1, 1, 0}, 640, 0, 0xFFFFFFFFU, 0, 640, 400}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    internal_overlay rec{};
    rec.width = 640;
    rec.height = 480;
    rec.x = rec.coord_type = 0xDEAD;  // a refused position writes nothing
    clear_captured_logs();
    EXPECT_EQ(o_calculate_overlay_position(&rec, &c.pos, c.content_width, 400), c.result);
    EXPECT_TRUE(captured_logs().empty());
    EXPECT_EQ(std::tuple(rec.x, rec.y, rec.visible_width, rec.visible_height, rec.coord_type),
              c.result != 0
                  ? std::tuple(0xDEADU, 0U, 0U, 0U, 0xDEADU)
                  : std::tuple(c.x, c.y, c.visible_width, c.visible_height, c.pos.coord_type));
  }
}

}  // namespace
