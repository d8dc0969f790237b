// Plain overlays through the real command path against the simulated
// driver: creation, buffers, placement, memberships, palette, and every
// driver refusal these operations handle.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "api_test_util.h"
#include "device.h"
#include "test_support.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

using api_test::entry;
using api_test::kernel_id;
using api_test::main_version;
using api_test::Table;

class OverlayOps : public api_test::Library {
 protected:
  void SetUp() override {
    Library::SetUp();
    clear_captured_logs();
    calls_after_init_ = camsim_total_calls();
  }

  // Driver calls since the library was initialised (which loads the palette).
  long calls() const { return camsim_total_calls() - calls_after_init_; }
  long calls_after_init_ = 0;

  // A table entry of `type` without a hardware overlay; its handle.
  static int bare_entry(int32_t type) {
    overlay_entry_data data{};
    data.type = type;
    return overlay_table_create_overlay(Table().t, &data);
  }
};

// Each operation on a plain overlay of handle 1 while the driver refuses one
// command: its result, its messages, and the hardware overlays left.
TEST_F(OverlayOps, DriverRefusals) {
  // What a refusal must leave as it was: the source set and the palette copy.
  auto sets_and_palette = [] {
    const Table table;
    std::vector<int8_t> bytes(std::begin(table.t->source_handles),
                              std::end(table.t->source_handles));
    const auto* palette = reinterpret_cast<const int8_t*>(table.t->palette_copy);
    bytes.insert(bytes.end(), palette, palette + sizeof table.t->palette_copy);
    return bytes;
  };
  overlay moved = api_test::plain(8, 8);
  moved.position.x = 5;
  overlay_palette_color color{1, 2, 3, 4, 0};
  using Messages = std::vector<std::string>;
  const std::tuple<camsim_command, int, int, Messages, std::function<int()>> rows[] = {
      {CAMSIM_CREATE_OVERLAY, EIO, 0,
       Messages{"Internal error when adding overlay: Input/output error"},
       [other = api_test::plain(4, 4)]() mutable { return overlay_create(&other); }},
      {CAMSIM_GET_OVERLAY, EIO, 0,
       Messages{"Internal error when getting overlay: Input/output error",
                "Failed to get overlay."},
       [&] { return overlay_update(1, &moved); }},
      {CAMSIM_SUBMIT_BUFFER, EINVAL, 0,
       Messages{"Internal error when submitting overlay buffer: Invalid argument"},
       [] { return overlay_submit_buffer(1, 4096, 0); }},
      {CAMSIM_SOURCE_PARAMS, ENOBUFS, 0,
       Messages{"Internal error setting source overlay parameters: No buffer space available"},
       [] { return overlay_add_to_source(o_get_fd(), 1); }},
      {CAMSIM_SET_PALETTE_COLOR, EIO, 0,
       Messages{"Could not set palette color at index 3, bank 1."},
       [&] { return overlay_palette_set_color(&color, 3); }},
      // A refused destroy keeps the entry, so that the destroy at the end of
      // the row, a retry, still finds the overlay and destroys it.
      {CAMSIM_DESTROY_OVERLAY, EBUSY, 0,
       Messages{"Internal error when removing overlay: Device or resource busy"},
       [] { return overlay_destroy(1); }},
  };
  for (const auto& [command, error, live_after, messages, operation] : rows) {
    SCOPED_TRACE(messages[0]);
    overlay_deinit();
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GT(overlay_init(0), 0);
    overlay ovl = api_test::plain(8, 8);
    ASSERT_EQ(overlay_create(&ovl), 1);
    const uint32_t version = main_version();
    const std::vector<int8_t> before = sets_and_palette();
    clear_captured_logs();
    ASSERT_EQ(camsim_inject_fault(command, 1, error), 0);
    EXPECT_EQ(operation(), -1);
    EXPECT_EQ(sets_and_palette(), before);
    Messages logged, want;
    for (const auto& r : captured_logs()) logged.push_back(r.priority == LOG_ERR ? r.message : "");
    for (const auto& m : messages) want.push_back("libzantrel: " + m + "\n");
    EXPECT_EQ(logged, want);
    if (command != CAMSIM_CREATE_OVERLAY) {
      EXPECT_EQ(main_version(), version) << "a refused change is not counted";
    }
    EXPECT_EQ(overlay_destroy(1), 0);
    EXPECT_EQ(camsim_live_count(), live_after);
  }
}

// Calls of a process that is not bound, and calls naming what cannot exist:
// each is refused with its code and one message, and touches neither the
// driver, nor the table, nor /dev/shm.
TEST_F(OverlayOps, RefusedCallsTouchNothing) {
  overlay ovl = api_test::plain(8, 8);
  ASSERT_EQ(overlay_create(&ovl), 1);
  overlay_text text{};
  std::snprintf(text.text, sizeof text.text, "x");
  text.font_size = 20;
  overlay_image image{};
  std::snprintf(image.path, sizeof image.path, "/");
  overlay_palette_color color{1, 2, 3, 4, 0};
  overlay_palette_color* colors = nullptr;
  int32_t offset = 0;
  int32_t count = 0;
  const int fd = o_get_fd();
  const std::tuple<bool, int, std::function<int()>> rows[] = {
      // Bound: handles never created, stream numbers no table can name.
      {true, -6, [&] { return overlay_text_update(77, &text); }},
      {true, -6, [&] { return overlay_image_update(88, &image); }},
      {true, -6, [] { return overlay_destroy(50); }},
      {true, -2, [] { return overlay_add_to_stream(1, 0, -1); }},
      {true, -2, [] { return overlay_remove_from_stream(1, 0, -1); }},
      {true, -2, [] { return overlay_clear_stream(0, -1); }},
      // Unbound (after overlay_detach): every operation.
      {false, -1, [&] { return overlay_create(&ovl); }},
      {false, -1, [] { return overlay_destroy(1); }},
      {false, -1, [&] { return overlay_update(1, &ovl); }},
      {false, -1, [&] { return overlay_get_buffer(1, &offset); }},
      {false, -1, [] { return overlay_submit_buffer(1, 4096, 0); }},
      {false, -1, [] { return overlay_find("x"); }},
      {false, -1, [] { return overlay_add_globally(1); }},
      {false, -1, [] { return overlay_remove_globally(1); }},
      {false, -1, [] { return overlay_add_to_channel(1, 0); }},
      {false, -1, [] { return overlay_remove_from_channel(1, 0); }},
      {false, -1, [] { return overlay_add_to_stream(1, 0, 0); }},
      {false, -1, [] { return overlay_remove_from_stream(1, 0, 0); }},
      {false, -1, [] { return overlay_clear_stream(0, 0); }},
      {false, -1, [&] { return overlay_add_to_source(fd, 1); }},
      {false, -1, [&] { return overlay_remove_from_source(fd, 1); }},
      {false, -1, [&] { return overlay_palette_set_color(&color, 1); }},
      {false, -1, [&] { return overlay_palette_get_all_colors(&colors, &count); }},
      {false, -1, [&] { return overlay_text_create(&text); }},
      {false, -1, [&] { return overlay_text_update(1, &text); }},
      {false, -1, [&] { return overlay_image_create(&image); }},
      {false, -1, [&] { return overlay_image_update(1, &image); }},
      {false, -1, [] { return overlay_detach(); }},
      {false, -1, [] { return overlay_deinit(); }},
  };
  auto table_bytes = [] {
    const Table table;
    return std::vector<uint8_t>(reinterpret_cast<uint8_t*>(table.t),
                                reinterpret_cast<uint8_t*>(table.t->palette_copy + 16));
  };
  int row = 0;
  for (const auto& [bound, result, call] : rows) {
    SCOPED_TRACE(row++);
    if (!bound && o_get_fd() != 0) {
      ASSERT_EQ(overlay_detach(), 0);
    }
    const std::vector<uint8_t> before = table_bytes();
    const long driver_calls = camsim_total_calls();
    clear_captured_logs();
    EXPECT_EQ(call(), result);
    EXPECT_EQ(captured_logs().size(), result == -2 ? 0u : 1u);
    EXPECT_EQ(camsim_total_calls(), driver_calls);
    EXPECT_EQ(table_bytes(), before);
    EXPECT_EQ(api_test::table_files(), std::vector<std::string>{"/dev/shm/ovl_table"});
    EXPECT_EQ(camsim_live_count(), 1);
  }
  ASSERT_EQ(overlay_attach(0), fd);
}

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
  // The bank is set before anything can fail; the size only by the driver.
  EXPECT_EQ(std::tuple(negative.buffer_size, negative.palette_bank), std::tuple(77U, 1U));

  // An entry without a hardware overlay is destroyed without the driver.
  ASSERT_EQ(bare_entry(OVERLAY_TYPE_TEXT), 1);
  EXPECT_EQ(overlay_destroy(1), 0);
  EXPECT_EQ(overlay_find("any"), -6);
  EXPECT_EQ(calls(), 0);
  EXPECT_EQ(overlay_destroy(0), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Could not get overlay for this handle.\n"));
}

// A filled buffer is shown; an update moves the overlay only when its
// position changed.
TEST_F(OverlayOps, FilledBufferIsShownAndMovedOnlyWhenThePositionChanged) {
  overlay ovl = api_test::plain(32, 32, 1);
  ASSERT_EQ(overlay_create(&ovl), 1);
  EXPECT_EQ(std::tuple(ovl.palette_bank, ovl.buffer_size), std::tuple(1U, 32U * 32U * 4U));
  int32_t offset = -1;
  ASSERT_EQ(overlay_get_buffer(1, &offset), 0);
  void* map = mmap(nullptr, ovl.buffer_size, PROT_WRITE, MAP_SHARED, o_get_fd(), offset);
  ASSERT_NE(map, MAP_FAILED);
  std::fill_n(static_cast<uint32_t*>(map), ovl.buffer_size / 4, 0xFFFF0000U);
  munmap(map, ovl.buffer_size);
  ASSERT_EQ(overlay_submit_buffer(1, offset, 0), 0);
  std::vector<uint32_t> shown(ovl.buffer_size / 4);
  ASSERT_EQ(camsim_read_shown_buffer(kernel_id(1), shown.data(), ovl.buffer_size), 32 * 32 * 4);
  EXPECT_EQ(std::count(shown.begin(), shown.end(), 0xFFFF0000U), 32 * 32);
  EXPECT_TRUE(captured_logs().empty());
  const uint32_t version = main_version();
  const long before = camsim_total_calls();
  overlay same = ovl;
  same.priority = 9;
  same.ignore_stream_filter = 1;
  same.width = 1;  // ignored
  EXPECT_EQ(overlay_update(1, &same), 0);
  EXPECT_EQ(main_version(), version + 1);
  EXPECT_EQ(camsim_total_calls(), before) << "same position, no driver call";

  overlay moved = same;
  moved.position = {10, 20, 0.5F, 1, 0};
  EXPECT_EQ(overlay_update(1, &moved), 0);
  internal_overlay rec{};
  ASSERT_EQ(camsim_get_overlay(kernel_id(1), &rec), 0);
  EXPECT_EQ(std::tuple(rec.x, rec.y, rec.visible_width), std::tuple(10U, 20U, 16U));
  EXPECT_EQ(main_version(), version + 2);
  const overlay stored = entry(1).description.ovl;  // only placement changes
  EXPECT_EQ(std::tuple(stored.priority, stored.width), std::tuple(9, 32U));

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
  const int scalable = bare_entry(OVERLAY_TYPE_SCALABLE_IMAGE);
  const int text = bare_entry(OVERLAY_TYPE_MODIFIABLE_TEXT);
  overlay ovl = api_test::plain(8, 8);
  const int handle = overlay_create(&ovl);
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
  EXPECT_TRUE(camsim_get_overlay_info(kernel_id(handle), &info) == 0 && info.in_source == 1);
  EXPECT_EQ(overlay_remove_from_source(o_get_fd(), handle), 0);
  EXPECT_EQ(overlay_remove_from_source(o_get_fd(), handle), -6);

  // The stream wrappers drop their second argument, not the stream.
  EXPECT_EQ(overlay_add_to_stream(handle, 7, 4), 0);
  EXPECT_EQ(overlay_remove_from_stream(handle, 7, 4), 0);
  EXPECT_EQ(overlay_clear_stream(7, 4), 0);
  EXPECT_EQ(overlay_clear_stream(7, 4), -5);
}

TEST_F(OverlayOps, PaletteColourReachesDriverAndTable) {
  overlay_palette_color color{0x80, 0x10, 0x20, 0x30, 7};
  EXPECT_EQ(overlay_palette_set_color(&color, 16), -1);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Can't set palette color, invalid index (was 16)\n"));
  EXPECT_EQ(calls(), 0);

  ASSERT_EQ(overlay_palette_set_color(&color, 9), 0);
  cam_palette_color bank[16], expected{};
  ASSERT_EQ(camsim_read_palette(1, bank, nullptr), 0);
  zantrel::device::palette_argb_to_ycbcr(&expected, 0x80102030);
  expected.index = 9, expected.bank = 1, expected.flag = 1;  // a non-zero flag word is sent as 1
  EXPECT_EQ(std::memcmp(&bank[9], &expected, sizeof expected), 0);

  overlay_palette_color* colors = nullptr;
  int32_t count = 0;
  ASSERT_EQ(overlay_palette_get_all_colors(&colors, &count), 0);
  EXPECT_TRUE(count == 16 && std::memcmp(&colors[9], &color, sizeof color) == 0);
  EXPECT_EQ(colors[0].alpha, 0xFF);
  free(colors);

  // Without a table: nothing is looked up, so nothing is reported missing.
  ASSERT_EQ(overlay_table_deinit(), 0);
  clear_captured_logs();
  count = 0;
  colors = &color;
  EXPECT_EQ(overlay_palette_get_all_colors(&colors, &count), -1);
  EXPECT_TRUE(count == 16 && colors == nullptr);
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
