// Modifiable texts of one stream: drawn again only when the expanded text
// changed, into the same overlay while the pixel count stays, and scrolled.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <glib.h>

#include <cerrno>
#include <cmath>
#include <cstdio>

#include "api_test_util.h"
#include "test_support.h"
#include "tokenfill.h"

namespace {

using zantrel::test::logged_once;

class ModifiableText : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GT(overlay_init(0), 0);
    stream_ = overlay_stream_context_create(o_get_fd(), 0, 0, 0, 1920, 1080, 7);
    expansion_ = {tokenfill_init(), &time_};
    text_ = o_modifiable_text_context_get(stream_, 7);
    ASSERT_NE(text_, nullptr);
    slot_.in_use = 1;
    slot_.data.type = OVERLAY_TYPE_MODIFIABLE_TEXT;
    overlay_text& t = slot_.data.description.text;
    std::snprintf(t.text, sizeof t.text, "%%H:%%M:%%S");
    t.font_size = 40;
    t.text_color = OVERLAY_COLOR_WHITE;
    t.overlay.position = {0.0f, 0.0f, 1, 1, OVERLAY_COORDS_NORMALIZED};
  }
  void TearDown() override {
    overlay_stream_context_destroy(stream_);
    tokenfill_exit(static_cast<tokenfill_context*>(expansion_.tokenfill_context));
    overlay_deinit();
  }
  uint32_t frame() { return o_get_modifiable_text_overlay_id(stream_, text_, &slot_, &expansion_); }

  timeval time_{1795350896, 0};  // 2026-11-22 12:34:56 UTC
  overlay_stream_context* stream_ = nullptr;
  overlay_expansion_params expansion_{};
  modifiable_text_context* text_ = nullptr;
  overlay_table_entry slot_{};
};

TEST_F(ModifiableText, DrawnOnlyWhenTheTextChanges) {
  const uint32_t first = frame();
  ASSERT_GT(first, 0u);
  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(first, &info), 0);
  EXPECT_EQ(info.record.nbr_buffers, 3u);
  const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);

  EXPECT_EQ(frame(), first);
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), submits) << "same text: not drawn";

  // The next second has as many pixels: a fresh buffer of the same overlay.
  ++time_.tv_sec;
  EXPECT_EQ(frame(), first);
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), submits + 1);

  // A wider text needs a new overlay; the old one goes once the new shows.
  std::snprintf(slot_.data.description.text.text, 512, "%%Y-%%m-%%d %%H:%%M:%%S");
  const uint32_t wider = frame();
  EXPECT_NE(wider, first);
  EXPECT_NE(camsim_get_overlay_info(first, &info), 0);
  EXPECT_EQ(camsim_live_count(), 1);

  // Another colour redraws the same text.
  slot_.data.description.text.text_color = OVERLAY_COLOR_RED;
  EXPECT_EQ(frame(), wider);
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), submits + 3);

  // A failed creation keeps the overlay the context has.
  std::snprintf(slot_.data.description.text.text, 512, "%%H");
  ASSERT_EQ(camsim_inject_fault(CAMSIM_CREATE_OVERLAY, 1, ENOMEM), 0);
  EXPECT_EQ(frame(), 0u);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Could not create modifiable text overlay buffers\n"));
  ASSERT_EQ(camsim_get_overlay_info(wider, &info), 0);

  g_hash_table_remove_all(stream_->text_contexts);
  EXPECT_EQ(camsim_live_count(), 0) << "the context owned its overlay";
}

TEST_F(ModifiableText, Scrolling) {
  const struct {
    float x;
    int speed;
    uint32_t coords, width;
    float expected_x, expected_visible;
  } cases[] = {
      {0.5f, 10, OVERLAY_COORDS_NORMALIZED, 1920, 0.5025f, 0.4975f},
      {0.9999f, 10, OVERLAY_COORDS_NORMALIZED, 1920, 0.0f, 1.0f},  // wraps to the left edge
      {0.0f, -10, OVERLAY_COORDS_NORMALIZED, 1920, 1.0f, 0.0f},    // restarts at the right edge
      {100.0f, 10, 0, 1920, 0.0f, 1.0f},                           // pixels: not moved, wrapped
      // A narrow text is cut only at the frame's edge: 29 of its 48 pixels.
      {0.5f, 10, OVERLAY_COORDS_NORMALIZED, 48, 0.5048780f, 1.0f},
      {0.98f, 10, OVERLAY_COORDS_NORMALIZED, 48, 0.9848781f, 0.6048773f},
  };
  const uint32_t id = frame();
  for (const auto& c : cases) {
    overlay_entry_data data = slot_.data;
    overlay_text& t = data.description.text;
    t.overlay.width = data.width = c.width;
    t.scroll_speed = c.speed;
    t.overlay.position = {c.x, 0.5f, 1.0f, 1.0f, c.coords};
    EXPECT_EQ(o_update_scrolling_text(&data, text_, 1920, id), 1);
    EXPECT_NEAR(t.overlay.position.x, c.expected_x, 1e-6) << c.x;
    EXPECT_NEAR(t.overlay.position.visible_width, c.expected_visible, 1e-6) << c.x;
  }
  EXPECT_TRUE(logged_once(LOG_WARNING,
                          "libzantrel: Scrolling text only supports normalized destination "
                          "coords.\n"));
  overlay_entry_data still = slot_.data;
  EXPECT_EQ(o_update_scrolling_text(&still, text_, 1920, id), 0);
}

TEST_F(ModifiableText, UnusedContextsAreDropped) {
  int32_t handles[OVERLAY_SET_PLACES] = {3, -6, -6, -6, -6, -6, -6, 7};
  EXPECT_EQ(o_remove_unused_modifiable_text_context(GINT_TO_POINTER(7), nullptr, handles), 0);
  EXPECT_EQ(o_remove_unused_modifiable_text_context(GINT_TO_POINTER(4), nullptr, handles), 1);
  EXPECT_EQ(o_modifiable_text_context_get(stream_, 7), text_) << "found, not made again";
}

}  // namespace
