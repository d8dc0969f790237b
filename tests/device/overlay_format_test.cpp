// Pixel formats and the position arithmetic of the overlay description.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cmath>
#include <limits>

#include "test_support.h"
#include "zantrel.h"

namespace {

using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

const char* const kUnsupportedFormat = "libzantrel: Overlay format not supported / implemented.\n";
const char* const kUnknownSize =
    "libzantrel: Overlay format is not known or implemented. Assuming same size as "
    "OVERLAY_FORMAT_FULL_COLOR.\n";

struct FormatCase {
  overlay_format format;
  int32_t internal_type;  // -2: none
  int32_t slots;
  uint32_t width;
  uint32_t height;
  int32_t size;
};

void PrintTo(const FormatCase& c, std::ostream* os) { *os << "format " << c.format; }

class FormatTable : public testing::TestWithParam<FormatCase> {};

TEST_P(FormatTable, TypeSlotsAndSize) {
  const FormatCase& c = GetParam();
  clear_captured_logs();
  EXPECT_EQ(o_get_overlay_internal_type(c.format), c.internal_type);
  EXPECT_EQ(o_get_nbr_internal_slots(c.format), c.slots);
  EXPECT_EQ(o_calculate_overlay_size(c.width, c.height, c.format), c.size);
  bool supported = c.internal_type >= 0;
  // Two lookups of the type, each logging once when there is none.
  EXPECT_EQ(zantrel::test::captured_logs().size(), supported ? 0U : 3U);
  if (!supported) {
    EXPECT_TRUE(logged_once(LOG_ERR, kUnknownSize));
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllFormats, FormatTable,
    testing::Values(FormatCase{OVERLAY_FORMAT_FULL_COLOR, 1, 1, 3, 3, 13},
                    FormatCase{OVERLAY_FORMAT_16BIT, 3, 1, 5, 3, 30},
                    FormatCase{OVERLAY_FORMAT_8BIT, 2, 1, 5, 3, 15},
                    FormatCase{OVERLAY_FORMAT_PALETTE_4BIT, 0, 1, 5, 3, 7},
                    FormatCase{OVERLAY_FORMAT_PALETTE_4BIT_DUAL, 5, 1, 5, 3, 15},
                    FormatCase{5, -2, 1, 3, 3, 13}, FormatCase{6, -2, 1, 2, 2, 6},
                    FormatCase{OVERLAY_FORMAT_ARGB32, 4, 1, 5, 3, 60},
                    FormatCase{OVERLAY_FORMAT_1BIT, 6, 1, 7, 5, 5},
                    FormatCase{OVERLAY_FORMAT_1BIT, 6, 1, 9, 2, 4},
                    FormatCase{OVERLAY_FORMAT_PALETTE_8BIT, -2, 1, 3, 3, 13},
                    FormatCase{OVERLAY_FORMAT_20BIT, 7, 2, 2, 2, 10},
                    FormatCase{OVERLAY_FORMAT_YCBCR_ALPHA, 8, 2, 5, 3, 45},
                    FormatCase{12, -2, 1, 3, 3, 13}, FormatCase{0xFFFFFFFFU, -2, 1, 3, 3, 13}));

TEST(StandardPalette, CopiesColoursOnlyForOneBit) {
  overlay ovl{};
  ovl.palette_bank = 1;
  ovl.palette_colors[0] = 0x11;
  ovl.palette_colors[3] = 0x44;
  internal_overlay rec{};
  rec.palette_colors[0] = 0xAA;

  ovl.format = OVERLAY_FORMAT_PALETTE_4BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(rec.palette_bank, 1U);
  EXPECT_EQ(rec.palette_colors[0], 0xAAU);

  ovl.format = OVERLAY_FORMAT_1BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(rec.palette_colors[0], 0x11U);
  EXPECT_EQ(rec.palette_colors[3], 0x44U);
}

struct PositionCase {
  const char* name;
  overlay_position pos;
  uint32_t content_width;
  int result;
  uint32_t x = 0, y = 0, visible_width = 0, visible_height = 0;
};

void PrintTo(const PositionCase& c, std::ostream* os) { *os << c.name; }

class Position : public testing::TestWithParam<PositionCase> {};

TEST_P(Position, Calculation) {
  const PositionCase& c = GetParam();
  internal_overlay rec{};
  rec.width = 640;
  rec.height = 480;
  rec.x = 0xDEAD;
  clear_captured_logs();
  ASSERT_EQ(o_calculate_overlay_position(&rec, &c.pos, c.content_width, 400), c.result);
  EXPECT_TRUE(zantrel::test::captured_logs().empty());
  if (c.result != 0) {
    EXPECT_EQ(rec.x, 0xDEADU) << "a refused position writes nothing";
    return;
  }
  EXPECT_EQ(rec.x, c.x);
  EXPECT_EQ(rec.y, c.y);
  EXPECT_EQ(rec.visible_width, c.visible_width);
  EXPECT_EQ(rec.visible_height, c.visible_height);
  EXPECT_EQ(rec.coord_type, c.pos.coord_type);
}

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr uint32_t kNorm = OVERLAY_COORDS_NORMALIZED;

INSTANTIATE_TEST_SUITE_P(
    Cases, Position,
    testing::Values(
        PositionCase{"origin_pixels", {0, 0, 1, 1, 0}, 640, 0, 0, 0, 640, 400},
        PositionCase{"origin_normalized", {0, 0, 1, 1, kNorm}, 640, 0, 0, 0, 640, 400},
        PositionCase{"normalized_one", {1, 0.5F, 1, 1, kNorm}, 640, 0, 16384, 8192, 640, 400},
        PositionCase{"normalized_above_one", {1.0001F, 0, 1, 1, kNorm}, 640, -2},
        PositionCase{"pixel_fraction_truncates", {1.5F, 2.9F, 1, 1, 0}, 640, 0, 1, 2, 640, 400},
        PositionCase{"pixels_above_one", {700, 500, 1, 1, 3}, 640, 0, 700, 500, 640, 400},
        PositionCase{"negative_x", {-0.5F, 0, 1, 1, 0}, 640, -2},
        PositionCase{"negative_y", {0, -1, 1, 1, kNorm}, 640, -2},
        PositionCase{"visible_zero", {0, 0, 0, 0, 0}, 640, 0, 0, 0, 0, 0},
        PositionCase{"visible_above_one", {0, 0, 1.01F, 1, 0}, 640, -2},
        PositionCase{"visible_height_negative", {0, 0, 1, -0.1F, 0}, 640, -2},
        PositionCase{"content_clipped_to_overlay", {0, 0, 0.5F, 0.5F, 0}, 700, 0, 0, 0, 320, 200},
        PositionCase{"nan_refused", {kNaN, 0, 1, 1, 0}, 640, -2},
        PositionCase{
            "huge_pixels_saturate", {1e12F, 0, 1, 1, 0}, 640, 0, 0xFFFFFFFFU, 0, 640, 400}),
    [](const testing::TestParamInfo<PositionCase>& info) { return info.param.name; });

}  // namespace
