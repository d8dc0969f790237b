// The palette: default colours, the YCbCr conversion, and the colour
// commands sent to the driver (seen by taking the program's ioctl calls).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "cam_ioctl.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

namespace {

// A descriptor number no real file has in these tests.
constexpr int kFakeDevice = 900;

struct SentCommand {
  unsigned long request;
  cam_palette_color record;
};

std::vector<SentCommand> g_sent;
int g_fail_errno = 0;

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void* arg = va_arg(args, void*);
  va_end(args);
  if (fd != kFakeDevice) {
    using Real = int (*)(int, unsigned long, void*);
    static auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "ioctl"));
    return real(fd, request, arg);
  }
  SentCommand sent{request, {}};
  std::memcpy(&sent.record, arg, sizeof sent.record);
  g_sent.push_back(sent);
  if (g_fail_errno != 0) {
    errno = g_fail_errno;
    return -1;
  }
  return 0;
}

namespace {

using zantrel::test::logged_once;

class PaletteTest : public testing::Test {
 protected:
  void SetUp() override {
    g_sent.clear();
    g_fail_errno = 0;
    zantrel::test::clear_captured_logs();
  }
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
    EXPECT_EQ(record.luma, e.y) << "index " << e.index;
    EXPECT_EQ(record.cb, e.cb) << "index " << e.index;
    EXPECT_EQ(record.cr, e.cr) << "index " << e.index;
    EXPECT_EQ(record.alpha, e.alpha) << "index " << e.index;
  }
}

TEST_F(PaletteTest, SetDefaultLoadsFifteenEntriesIntoBothBanks) {
  EXPECT_EQ(palette_set_default(kFakeDevice), 0);
  ASSERT_EQ(g_sent.size(), 30U);
  for (int index = 0; index < 15; ++index) {
    for (int bank = 0; bank < 2; ++bank) {
      const SentCommand& sent = g_sent[static_cast<size_t>(index * 2 + bank)];
      EXPECT_EQ(sent.request, CAM_IOC_SET_PALETTE_COLOR);
      EXPECT_EQ(sent.record.index, index);
      EXPECT_EQ(sent.record.bank, bank);
      EXPECT_EQ(sent.record.flag, 0);
      EXPECT_EQ(sent.record.reserved[0] | sent.record.reserved[1], 0);
      EXPECT_EQ(sent.record.alpha, static_palette[index] >> 24);
    }
  }
  EXPECT_TRUE(zantrel::test::captured_logs().empty());

  g_sent.clear();
  g_fail_errno = EIO;
  EXPECT_EQ(palette_set_default(kFakeDevice), -1);
  EXPECT_EQ(g_sent.size(), 30U) << "a refusal does not stop the load";
  EXPECT_TRUE(zantrel::test::captured_logs().empty());
}

TEST_F(PaletteTest, SetColorSendsOneUserBankRecord) {
  EXPECT_EQ(palette_set_color_argb(kFakeDevice, 0xFFFF0000, 3, 0x101), 0);
  ASSERT_EQ(g_sent.size(), 1U);
  const cam_palette_color& r = g_sent[0].record;
  EXPECT_EQ(g_sent[0].request, CAM_IOC_SET_PALETTE_COLOR);
  EXPECT_EQ(r.index, 3);
  EXPECT_EQ(r.bank, 1);
  EXPECT_EQ(r.luma, 76);
  EXPECT_EQ(r.cb, 85);
  EXPECT_EQ(r.cr, 255);
  EXPECT_EQ(r.alpha, 255);
  EXPECT_EQ(r.flag, 1) << "the low byte of the flag";
}

TEST_F(PaletteTest, SetColorRefusals) {
  for (int index : {16, -1, 1000}) {
    zantrel::test::clear_captured_logs();
    EXPECT_EQ(palette_set_color_argb(kFakeDevice, 0, index, 0), -1);
    EXPECT_TRUE(
        logged_once(LOG_ERR, "libzantrel: Invalid index when setting palette, must be < 16. Was " +
                                 std::to_string(index) + ".\n"));
  }
  EXPECT_TRUE(g_sent.empty());

  g_fail_errno = EINVAL;
  EXPECT_EQ(palette_set_color_argb(kFakeDevice, 0, 15, 0), -1);
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
  EXPECT_TRUE(zantrel::test::captured_logs().empty());

  // An invalid colour gives -1, which palette_get_color refuses in turn.
  EXPECT_EQ(palette_get_color(palette_get_color_index(7)), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid overlay color\n"));
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid index\n"));
  EXPECT_EQ(palette_get_color_index(static_cast<overlay_color>(-1)), -1);
  EXPECT_EQ(palette_get_color(16), -1);
}

}  // namespace
