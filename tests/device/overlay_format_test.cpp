// The overlay description's pixel formats and position arithmetic, and the
// palette: default colours, the YCbCr conversion, and the colour commands as
// the simulated driver receives them.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

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
    EXPECT_EQ(zantrel::test::captured_logs().size(), type >= 0 ? 0U : 3U) << "format " << format;
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
  EXPECT_EQ(rec.palette_bank, 1U);
  EXPECT_EQ(rec.palette_colors[0], 0xAAU);

  ovl.format = OVERLAY_FORMAT_1BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(rec.palette_colors[0], 0x11U);
  EXPECT_EQ(rec.palette_colors[3], 0x44U);
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
    EXPECT_TRUE(zantrel::test::captured_logs().empty());
    EXPECT_EQ(std::tuple(rec.x, rec.y, rec.visible_width, rec.visible_height, rec.coord_type),
              c.result != 0
                  ? std::tuple(0xDEADU, 0U, 0U, 0U, 0xDEADU)
                  : std::tuple(c.x, c.y, c.visible_width, c.visible_height, c.pos.coord_type));
  }
}

class PaletteTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GE(fd_ = o_open_fd(), 0);
    zantrel::test::clear_captured_logs();
  }
  void TearDown() override { o_close_fd(fd_); }
  int fd_ = -1;
};

struct Ycbcr {
  int index;
  uint8_t y, cb, cr, alpha;
};

TEST_F(PaletteTest, DefaultColoursConvert) {
  const Ycbcr expected[] = {{0, 255, 129, 128, 255},  {1, 0, 128, 128, 255},
                            {2, 76, 85, 255, 255},    {3, 73, 129, 128, 255},
                            {4, 0, 128, 128, 73},     {10, 54, 97, 219, 182},
                            {13, 204, 116, 165, 255}, {14, 127, 98, 219, 255}};
  for (const Ycbcr& e : expected) {
    cam_palette_color record{};
    zantrel::device::palette_argb_to_ycbcr(&record, static_palette[e.index]);
    EXPECT_EQ(std::vector<int>({record.luma, record.cb, record.cr, record.alpha}),
              std::vector<int>({e.y, e.cb, e.cr, e.alpha}))
        << "index " << e.index;
  }
}

TEST_F(PaletteTest, SetDefaultLoadsFifteenEntriesIntoBothBanks) {
  EXPECT_EQ(palette_set_default(fd_), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 30);
  for (unsigned bank = 0; bank < 2; ++bank) {
    cam_palette_color entries[16];
    uint8_t written[16];
    ASSERT_EQ(camsim_read_palette(bank, entries, written), 0);
    for (int index = 0; index < 16; ++index) {
      EXPECT_EQ(written[index], index < 15) << "entry 15 is the driver's own";
      cam_palette_color want{};
      zantrel::device::palette_argb_to_ycbcr(&want, static_palette[index]);
      want.index = static_cast<uint8_t>(index);
      want.bank = static_cast<uint8_t>(bank);  // flag 0
      EXPECT_TRUE(index == 15 || std::memcmp(&entries[index], &want, sizeof want) == 0) << index;
    }
  }
  EXPECT_TRUE(captured_logs().empty());

  ASSERT_EQ(camsim_inject_fault(CAMSIM_SET_PALETTE_COLOR, 30, EIO), 0);
  EXPECT_EQ(palette_set_default(fd_), -1);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 60) << "a refusal does not stop the load";
  EXPECT_TRUE(captured_logs().empty());
}

TEST_F(PaletteTest, SetColorSendsOneUserBankRecordOrRefuses) {
  EXPECT_EQ(palette_set_color_argb(fd_, 0xFFFF0000, 3, 0x101), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 1);
  cam_palette_color user[16];
  ASSERT_EQ(camsim_read_palette(1, user, nullptr), 0);
  const cam_palette_color want{3, 1, 76, 85, 255, 255, {0, 0}, 1};  // the low byte of the flag
  EXPECT_EQ(std::memcmp(&user[3], &want, sizeof want), 0);

  for (int index : {16, -1, 1000}) {
    EXPECT_EQ(palette_set_color_argb(fd_, 0, index, 0), -1);
    EXPECT_TRUE(
        logged_once(LOG_ERR, "libzantrel: Invalid index when setting palette, must be < 16. Was " +
                                 std::to_string(index) + ".\n"));
  }
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 1);
  ASSERT_EQ(camsim_inject_fault(CAMSIM_SET_PALETTE_COLOR, 1, EINVAL), 0);
  EXPECT_EQ(palette_set_color_argb(fd_, 0, 15, 0), -1);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Could not set palette color at index 15, bank 1.\n"));
}

TEST_F(PaletteTest, ColourLookups) {
  const int expected_index[] = {1, 0, 2, 5, 4, 3};
  for (overlay_color color = 0; color < 6; ++color) {
    EXPECT_EQ(palette_get_color_index(color), expected_index[color]);
  }
  EXPECT_EQ(static_cast<uint32_t>(palette_get_color(palette_get_color_index(OVERLAY_COLOR_RED))),
            0xFFFF0000U);
  EXPECT_TRUE(captured_logs().empty());

  // An invalid colour gives -1, which palette_get_color refuses in turn.
  EXPECT_EQ(palette_get_color(palette_get_color_index(7)), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid overlay color\n"));
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid index\n"));
  EXPECT_EQ(palette_get_color_index(static_cast<overlay_color>(-1)), -1);
  EXPECT_EQ(palette_get_color(16), -1);
}

}  // namespace
