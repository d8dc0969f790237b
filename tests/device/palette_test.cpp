// The palette's default colours as the driver receives them, and the colour
// commands and lookups.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include "camsim.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

#include "device_test_util.h"

namespace {

using device_test::PaletteTest;
using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

// Default colours as the driver must hold them, in BT.601 studio range.
struct Ycbcr {
  int index;
  uint8_t y, cb, cr, alpha;
};
const Ycbcr kDefaultColours[] = {{0, 255, 129, 128, 255},  {1, 0, 128, 128, 255},
                                 {2, 76, 85, 255, 255},    {3, 73, 129, 128, 255},
                                 {4, 0, 128, 128, 73},     {10, 54, 97, 219, 182},
                                 {13, 204, 116, 165, 255}, {14, 127, 98, 219, 255}};

TEST_F(PaletteTest, SetDefaultLoadsFifteenEntriesIntoBothBanks) {
  EXPECT_EQ(palette_set_default(fd_), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 30);
  cam_palette_color banks[2][16];
  for (unsigned bank = 0; bank < 2; ++bank) {
    uint8_t written[16];
    ASSERT_EQ(camsim_read_palette(bank, banks[bank], written), 0);
    for (int index = 0; index < 16; ++index) {
      EXPECT_EQ(written[index], index < 15) << "entry 15 is the driver's own";
      const cam_palette_color& got = banks[bank][index];
      if (index == 15) break;
      EXPECT_EQ(std::tuple(got.index, got.bank, got.flag), std::tuple(index, bank, 0U)) << index;
    }
    for (const Ycbcr& e : kDefaultColours) {
      const cam_palette_color& got = banks[bank][e.index];
      EXPECT_EQ(std::tuple(got.luma, got.cb, got.cr, got.alpha),
                std::tuple(e.y, e.cb, e.cr, e.alpha))
          << "bank " << bank << ", index " << e.index;
    }
  }
  for (int index = 0; index < 15; ++index) {  // luma, cb, cr and alpha alike in both banks
    EXPECT_EQ(std::memcmp(&banks[0][index].luma, &banks[1][index].luma, 4), 0) << index;
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
