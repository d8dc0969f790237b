// The palette: default colours, the YCbCr conversion, and the colour
// commands as the simulated driver receives them.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "camsim.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::logged_once;

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
