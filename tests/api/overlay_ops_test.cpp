// Plain overlays through the real command path against the simulated
// driver: creation, buffers, placement, memberships, palette, and every
// driver refusal these operations handle.
#include <cairo.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "api_test_util.h"
#include "device.h"
#include "test_support.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

class OverlayOps : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GT(overlay_init(0), 0);
    clear_captured_logs();
    calls_after_init_ = camsim_total_calls();
  }
  void TearDown() override { overlay_deinit(); }

  // Driver calls since the library was initialised (which loads the palette).
  long calls() const { return camsim_total_calls() - calls_after_init_; }
  long calls_after_init_ = 0;

  static uint32_t kernel_id(int handle) {
    overlay_table* table = overlay_table_map();
    uint32_t id = static_cast<uint32_t>(overlay_table_get_entry(table, handle)->data.kernel_id);
    overlay_table_unmap(table);
    return id;
  }

  static uint32_t main_version() {
    overlay_table* table = overlay_table_map();
    uint32_t version = table->version;
    overlay_table_unmap(table);
    return version;
  }

  // Fills the overlay's buffer with one ARGB colour and submits it.
  static void fill(int handle, const overlay& ovl, uint32_t argb) {
    int32_t offset = -1;
    ASSERT_EQ(overlay_get_buffer(handle, &offset), 0);
    void* pixels =
        mmap(nullptr, ovl.buffer_size, PROT_READ | PROT_WRITE, MAP_SHARED, o_get_fd(), offset);
    ASSERT_NE(pixels, MAP_FAILED);
    std::fill_n(static_cast<uint32_t*>(pixels), ovl.buffer_size / 4, argb);
    munmap(pixels, ovl.buffer_size);
    ASSERT_EQ(overlay_submit_buffer(handle, offset, 0), 0);
  }
};

uint32_t pixel(cairo_surface_t* picture, int x, int y) {
  const unsigned char* data = cairo_image_surface_get_data(picture);
  int stride = cairo_image_surface_get_stride(picture);
  uint32_t value;
  std::memcpy(&value, data + y * stride + x * 4, 4);
  return value;
}

TEST_F(OverlayOps, FilledBufferIsShownWhereThePositionSays) {
  overlay ovl = api_test::plain(16, 8, 1);
  ovl.position = {100, 50, 1, 1, 0};
  int pixels_handle = overlay_create(&ovl);
  ASSERT_EQ(pixels_handle, 1);
  EXPECT_EQ(ovl.palette_bank, 1U);
  EXPECT_EQ(ovl.buffer_size, 16U * 8U * 4U);
  fill(pixels_handle, ovl, 0xFFFF0000);

  overlay half = api_test::plain(8, 8, 2);
  half.position = {0.5F, 0.5F, 0.5F, 1, OVERLAY_COORDS_NORMALIZED};
  int normalized_handle = overlay_create(&half);
  ASSERT_EQ(normalized_handle, 2);
  fill(normalized_handle, half, 0xFF00FF00);

  uint32_t ids[8] = {kernel_id(pixels_handle), kernel_id(normalized_handle)};
  std::string path = testing::TempDir() + "compose.png";
  ASSERT_EQ(camsim_compose(ids, 320, 240, path.c_str()), 2);
  cairo_surface_t* picture = cairo_image_surface_create_from_png(path.c_str());
  ASSERT_EQ(cairo_surface_status(picture), CAIRO_STATUS_SUCCESS);
  EXPECT_EQ(pixel(picture, 100, 50), 0xFFFF0000U);
  EXPECT_EQ(pixel(picture, 115, 57), 0xFFFF0000U);
  EXPECT_NE(pixel(picture, 116, 57), 0xFFFF0000U);
  EXPECT_NE(pixel(picture, 99, 50), 0xFFFF0000U);
  // Half of the frame, half of the width visible.
  EXPECT_EQ(pixel(picture, 160, 120), 0xFF00FF00U);
  EXPECT_EQ(pixel(picture, 163, 127), 0xFF00FF00U);
  EXPECT_NE(pixel(picture, 164, 120), 0xFF00FF00U);
  cairo_surface_destroy(picture);

  EXPECT_EQ(overlay_destroy(pixels_handle), 0);
  EXPECT_EQ(overlay_destroy(normalized_handle), 0);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_TRUE(captured_logs().empty());
}

struct Refusal {
  const char* name;
  camsim_command command;
  int error;
  // Runs the operation on a plain overlay of handle 1 and gives its result.
  std::function<int(int handle)> operation;
  int result;
  std::vector<std::string> messages;
  int live_after;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class DriverRefusal : public OverlayOps, public testing::WithParamInterface<Refusal> {};

TEST_P(DriverRefusal, ResultMessageAndNothingLeftBehind) {
  const Refusal& r = GetParam();
  overlay ovl = api_test::plain(8, 8);
  int handle = overlay_create(&ovl);
  ASSERT_EQ(handle, 1);
  uint32_t version = main_version();
  clear_captured_logs();
  ASSERT_EQ(camsim_inject_fault(r.command, 1, r.error), 0);
  EXPECT_EQ(r.operation(handle), r.result);
  std::vector<zantrel::test::LogRecord> logs = captured_logs();
  ASSERT_EQ(logs.size(), r.messages.size());
  for (size_t i = 0; i < logs.size(); ++i) {
    EXPECT_EQ(logs[i].message, r.messages[i]);
    EXPECT_EQ(logs[i].priority, LOG_ERR);
  }
  if (r.command != CAMSIM_CREATE_OVERLAY && r.command != CAMSIM_DESTROY_OVERLAY) {
    EXPECT_EQ(main_version(), version) << "a refused change is not counted";
  }
  overlay_destroy(handle);
  EXPECT_EQ(camsim_live_count(), r.live_after);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DriverRefusal,
    testing::Values(
        Refusal{"create",
                CAMSIM_CREATE_OVERLAY,
                EIO,
                [](int) {
                  overlay other = api_test::plain(4, 4);
                  return overlay_create(&other);
                },
                -1,
                {"libzantrel: Internal error when adding overlay: Input/output error\n"},
                0},
        Refusal{"position_get",
                CAMSIM_GET_OVERLAY,
                EIO,
                [](int handle) {
                  overlay moved = api_test::plain(8, 8);
                  moved.position.x = 5;
                  return overlay_update(handle, &moved);
                },
                -1,
                {"libzantrel: Internal error when getting overlay: Input/output error\n",
                 "libzantrel: Failed to get overlay.\n"},
                0},
        Refusal{"submit",
                CAMSIM_SUBMIT_BUFFER,
                EINVAL,
                [](int handle) { return overlay_submit_buffer(handle, 4096, 0); },
                -1,
                {"libzantrel: Internal error when submitting overlay buffer: Invalid argument\n"},
                0},
        Refusal{"source",
                CAMSIM_SOURCE_PARAMS,
                ENOBUFS,
                [](int handle) {
                  int rc = overlay_add_to_source(o_get_fd(), handle);
                  overlay_table* table = overlay_table_map();
                  bool member = overlay_table_is_source_entry(table, handle) == 0;
                  overlay_table_unmap(table);
                  return member ? 99 : rc;
                },
                -1,
                {"libzantrel: Internal error setting source overlay parameters: No buffer space "
                 "available\n"},
                0},
        Refusal{"palette",
                CAMSIM_SET_PALETTE_COLOR,
                EIO,
                [](int) {
                  overlay_palette_color color{1, 2, 3, 4, 0};
                  int rc = overlay_palette_set_color(&color, 3);
                  overlay_palette_color* colors = nullptr;
                  int32_t count = 0;
                  overlay_palette_get_all_colors(&colors, &count);
                  bool unchanged = colors != nullptr && colors[3].alpha == 0xFF;
                  free(colors);
                  return unchanged ? rc : 99;
                },
                -1,
                {"libzantrel: Could not set palette color at index 3, bank 1.\n"},
                0},
        // The driver keeps an overlay it refused to destroy; the entry is
        // gone all the same.
        Refusal{"destroy",
                CAMSIM_DESTROY_OVERLAY,
                EBUSY,
                [](int handle) { return overlay_destroy(handle); },
                -1,
                {"libzantrel: Internal error when removing overlay: Device or resource busy\n"},
                1}),
    [](const testing::TestParamInfo<Refusal>& info) { return info.param.name; });

TEST_F(OverlayOps, FullTableLeavesNoHardwareOverlay) {
  for (int handle = 1; handle <= OVERLAY_MAX_HANDLES; ++handle) {
    overlay ovl = api_test::plain(8, 8);
    ASSERT_EQ(overlay_create(&ovl), handle);
  }
  overlay ovl = api_test::plain(8, 8);
  EXPECT_EQ(overlay_create(&ovl), -10);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: No more handles available.\n"));
  EXPECT_EQ(camsim_live_count(), OVERLAY_MAX_HANDLES);
}

TEST_F(OverlayOps, BadDescriptionsNeverReachTheDriver) {
  overlay unsupported = api_test::plain(8, 8, 0, OVERLAY_FORMAT_PALETTE_8BIT);
  EXPECT_EQ(overlay_create(&unsupported), -2);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Overlay format not supported / implemented.\n"));
  overlay negative = api_test::plain(8, 8);
  negative.position.x = -1;
  negative.buffer_size = 77;
  EXPECT_EQ(overlay_create(&negative), -2);
  EXPECT_EQ(negative.buffer_size, 77U);
  EXPECT_EQ(negative.palette_bank, 1U) << "the bank is set before anything can fail";

  // An entry without a hardware overlay is destroyed without the driver.
  overlay_table* table = overlay_table_map();
  overlay_entry_data data{};
  data.type = OVERLAY_TYPE_TEXT;
  ASSERT_EQ(overlay_table_create_overlay(table, &data), 1);
  overlay_table_unmap(table);
  EXPECT_EQ(overlay_destroy(1), 0);
  EXPECT_EQ(overlay_find("any"), -6);
  EXPECT_EQ(calls(), 0);
  EXPECT_EQ(overlay_destroy(0), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Could not get overlay for this handle.\n"));
}

TEST_F(OverlayOps, UpdateMovesOnlyWhenThePositionChanged) {
  overlay ovl = api_test::plain(32, 32, 1);
  int handle = overlay_create(&ovl);
  ASSERT_EQ(handle, 1);
  uint32_t version = main_version();
  long before = camsim_total_calls();

  overlay same = ovl;
  same.priority = 9;
  same.ignore_stream_filter = 1;
  same.width = 1;  // ignored
  EXPECT_EQ(overlay_update(handle, &same), 0);
  EXPECT_EQ(main_version(), version + 1);
  EXPECT_EQ(camsim_total_calls(), before) << "same position, no driver call";

  overlay moved = same;
  moved.position = {10, 20, 0.5F, 1, 0};
  EXPECT_EQ(overlay_update(handle, &moved), 0);
  internal_overlay rec{};
  ASSERT_EQ(camsim_get_overlay(kernel_id(handle), &rec), 0);
  EXPECT_EQ(rec.x, 10U);
  EXPECT_EQ(rec.y, 20U);
  EXPECT_EQ(rec.visible_width, 16U);
  EXPECT_EQ(main_version(), version + 2);

  overlay_table* table = overlay_table_map();
  EXPECT_EQ(table->entries[0].data.description.ovl.priority, 9);
  EXPECT_EQ(table->entries[0].data.description.ovl.width, 32U) << "only placement changes";
  overlay_table_unmap(table);

  EXPECT_EQ(overlay_update(2, &moved), -1);
  EXPECT_TRUE(logged_once(
      LOG_ERR, "libzantrel: Could not update the overlay (handle 2), it is not yet in use\n"));
  for (int bad : {0, 101}) {
    EXPECT_EQ(overlay_update(bad, &moved), -6);
    EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Could not update the overlay (handle " +
                                         std::to_string(bad) + ")\n"));
  }
}

TEST_F(OverlayOps, SourceAndStreamMemberships) {
  overlay_table* table = overlay_table_map();
  overlay_entry_data data{};
  data.type = OVERLAY_TYPE_SCALABLE_IMAGE;
  int scalable = overlay_table_create_overlay(table, &data);
  data.type = OVERLAY_TYPE_MODIFIABLE_TEXT;
  int text = overlay_table_create_overlay(table, &data);
  overlay_table_unmap(table);
  overlay ovl = api_test::plain(8, 8);
  int handle = overlay_create(&ovl);
  clear_captured_logs();

  // Scalable images are refused before the driver hears of them; modifiable
  // texts are added with a warning (the driver refuses their id 0 here).
  EXPECT_EQ(overlay_add_to_source(o_get_fd(), scalable), -2);
  EXPECT_EQ(camsim_call_count(CAMSIM_SOURCE_PARAMS), 0);
  EXPECT_EQ(overlay_add_to_source(o_get_fd(), text), -1);
  EXPECT_TRUE(logged_once(LOG_ERR,
                          "libzantrel: Unable to add scalable image overlay as source "
                          "overlay (handle: 1)\n"));
  EXPECT_TRUE(logged_once(LOG_WARNING,
                          "libzantrel: Adding unsupported modifiable text overlay as "
                          "source overlay (handle:2)\n"));
  EXPECT_EQ(overlay_add_to_source(o_get_fd(), handle), 0);
  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(kernel_id(handle), &info), 0);
  EXPECT_EQ(info.in_source, 1U);
  EXPECT_EQ(overlay_remove_from_source(o_get_fd(), handle), 0);
  EXPECT_EQ(overlay_remove_from_source(o_get_fd(), handle), -6);

  // The stream wrappers drop their second argument, not the stream.
  EXPECT_EQ(overlay_add_to_stream(handle, 7, 4), 0);
  EXPECT_EQ(overlay_remove_from_stream(handle, 7, 4), 0);
  EXPECT_EQ(overlay_clear_stream(7, 4), 0);
  EXPECT_EQ(overlay_clear_stream(7, 4), -5);
}

TEST_F(OverlayOps, PaletteColourReachesDriverAndTable) {
  clear_captured_logs();
  overlay_palette_color color{0x80, 0x10, 0x20, 0x30, 7};
  EXPECT_EQ(overlay_palette_set_color(&color, 16), -1);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Can't set palette color, invalid index (was 16)\n"));
  EXPECT_EQ(calls(), 0);

  ASSERT_EQ(overlay_palette_set_color(&color, 9), 0);
  cam_palette_color bank[16];
  ASSERT_EQ(camsim_read_palette(1, bank, nullptr), 0);
  cam_palette_color expected{};
  zantrel::device::palette_argb_to_ycbcr(&expected, 0x80102030);
  EXPECT_EQ(bank[9].index, 9);
  EXPECT_EQ(bank[9].bank, 1);
  EXPECT_EQ(bank[9].luma, expected.luma);
  EXPECT_EQ(bank[9].cb, expected.cb);
  EXPECT_EQ(bank[9].cr, expected.cr);
  EXPECT_EQ(bank[9].alpha, 0x80);
  EXPECT_EQ(bank[9].flag, 1) << "a non-zero flag word is sent as 1";

  overlay_palette_color* colors = nullptr;
  int32_t count = 0;
  ASSERT_EQ(overlay_palette_get_all_colors(&colors, &count), 0);
  EXPECT_EQ(count, 16);
  EXPECT_EQ(std::memcmp(&colors[9], &color, sizeof color), 0);
  EXPECT_EQ(colors[0].alpha, 0xFF);
  free(colors);

  // Without a table: nothing is looked up, so nothing is reported missing.
  overlay_deinit();
  clear_captured_logs();
  count = 0;
  colors = &color;
  EXPECT_EQ(overlay_palette_get_all_colors(&colors, &count), -1);
  EXPECT_EQ(count, 16);
  EXPECT_EQ(colors, nullptr);
  EXPECT_EQ(overlay_destroy(0), -1);
  EXPECT_TRUE(captured_logs().empty());
}

// An encoder that makes a stream's context again hands the new one the old
// one's request; the new context must compose it, not take it as its own.
TEST_F(OverlayOps, NewStreamContextNeverTakesAnOlderRequestAsUpToDate) {
  overlay ovl = api_test::plain(8, 8);
  const int handle = overlay_create(&ovl);
  ASSERT_EQ(overlay_add_globally(handle), 0);
  overlay_encreq request{};
  for (uint32_t shown : {kernel_id(handle), 0U}) {  // then destroyed
    overlay_stream_context* stream =
        overlay_stream_context_create(o_get_fd(), 0, 0, 0, 640, 360, 7);
    EXPECT_EQ(overlay_setup_in_encreq(stream, &request, nullptr), 0);
    EXPECT_EQ(request.overlay_ids[0], shown);
    overlay_stream_context_destroy(stream);
    overlay_destroy(handle);
  }
}

TEST(ComparePosition, FieldByField) {
  overlay_position a{1, 2, 0.5F, 0.5F, 0};
  overlay_position b = a;
  EXPECT_EQ(utils_compare_overlay_position(&a, &b), 0);
  b.coord_type = OVERLAY_COORDS_NORMALIZED;
  EXPECT_EQ(utils_compare_overlay_position(&a, &b), 1);
  a.x = b.x = std::numeric_limits<float>::quiet_NaN();
  b.coord_type = 0;
  EXPECT_EQ(utils_compare_overlay_position(&a, &b), 1);
}

}  // namespace
