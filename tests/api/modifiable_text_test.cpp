// Modifiable texts of one stream: drawn again only when what would be drawn
// changed, kept on a failed frame, scrolled, and dropped when unused.
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

// Drawn again only when what would be drawn changed: the text, a colour, or
// the size the renderer gets (scaled only when scalable, truncated, raised to
// 16, unscaled for a legacy band).
TEST_F(ModifiableText, DrawnAgainOnlyWhenItWouldLookDifferent) {
  const struct {
    const char* name;
    uint32_t legacy;
    int32_t size, new_size;
    overlay_color text, outline, background;  // after the change
    bool redrawn;
  } cases[] = {
      {"Unchanged", 0, 40, 40, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK,
       false},
      {"TextColour", 0, 40, 40, OVERLAY_COLOR_RED, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK, true},
      {"Outline", 0, 40, 40, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_RED, OVERLAY_COLOR_BLACK, true},
      {"Background", 0, 40, 40, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_RED, true},
      {"Size", 0, 40, 41, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK, true},
      {"BothRaisedTo16", 0, 10, 12, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK,
       false},
      // The same em size, but a band one row taller.
      {"LegacyBand", 1, 20, 21, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK,
       true},
  };
  overlay_text& t = slot_.data.description.text;
  for (const auto& c : cases) {
    g_hash_table_remove_all(stream_->text_contexts);
    text_ = o_modifiable_text_context_get(stream_, 7);
    t.overlay.legacy = c.legacy;
    t.font_size = c.size;
    t.text_color = OVERLAY_COLOR_WHITE;
    t.outline_color = t.background_color = OVERLAY_COLOR_BLACK;
    const uint32_t first = frame();
    ASSERT_GT(first, 0u) << c.name;
    const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
    t.font_size = c.new_size;
    t.text_color = c.text;
    t.outline_color = c.outline;
    t.background_color = c.background;
    EXPECT_GT(frame(), 0u);
    EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER) - submits, c.redrawn ? 1 : 0) << c.name;
  }
}

// A clock is drawn once, at every size a text may have, on the camera's
// stream sizes, scalable or not.
TEST_F(ModifiableText, SteadyTextIsNotDrawnAgainAtAnySize) {
  overlay_text& t = slot_.data.description.text;
  std::snprintf(t.text, sizeof t.text, "12:34:56");
  for (uint32_t height : {1080u, 720u, 360u, 240u}) {
    overlay_stream_context* stream =
        overlay_stream_context_create(o_get_fd(), 0, 1, 0, height * 16 / 9, height, 7);
    modifiable_text_context* text = o_modifiable_text_context_get(stream, 7);
    for (int32_t scalable : {0, 1}) {
      for (int32_t size = 10; size <= 200; ++size) {
        t.scalable = scalable;
        t.font_size = size;
        const uint32_t id = o_get_modifiable_text_overlay_id(stream, text, &slot_, nullptr);
        const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
        EXPECT_EQ(o_get_modifiable_text_overlay_id(stream, text, &slot_, nullptr), id);
        ASSERT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), submits)
            << height << " rows, scalable " << scalable << ", size " << size;
      }
    }
    overlay_stream_context_destroy(stream);
  }
}

TEST_F(ModifiableText, FailedFrameKeepsTheOverlayAndIsDrawnAgain) {
  const uint32_t first = frame();
  ASSERT_GT(first, 0u);
  // A shorter text needs a new overlay, which cannot be made this frame.
  std::snprintf(slot_.data.description.text.text, 512, "%%H");
  ASSERT_EQ(camsim_inject_fault(CAMSIM_CREATE_OVERLAY, 1, ENOMEM), 0);
  EXPECT_EQ(frame(), 0u);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Could not create modifiable text overlay buffers\n"));
  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(first, &info), 0);
  const uint32_t next = frame();
  EXPECT_TRUE(next != 0 && next != first) << "drawn on the next frame";
  EXPECT_NE(camsim_get_overlay_info(first, &info), 0);

  g_hash_table_remove_all(stream_->text_contexts);
  EXPECT_EQ(camsim_live_count(), 0) << "the context owned its overlay";
}

TEST_F(ModifiableText, Scrolling) {
  const struct {
    float x;
    int speed;
    uint32_t coords;
    float expected_x, expected_visible;
  } cases[] = {
      {0.5f, 10, OVERLAY_COORDS_NORMALIZED, 0.5025f, 0.4975f},
      {0.9999f, 10, OVERLAY_COORDS_NORMALIZED, 0.0f, 1.0f},  // wraps to the left edge
      {0.0f, -10, OVERLAY_COORDS_NORMALIZED, 1.0f, 0.0f},    // restarts at the right edge
      {100.0f, 10, 0, 0.0f, 1.0f},                           // pixels: not moved, wrapped
  };
  const uint32_t id = frame();
  for (const auto& c : cases) {
    overlay_entry_data data = slot_.data;
    overlay_text& t = data.description.text;
    t.overlay.width = 1920;
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
