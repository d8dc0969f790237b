// Modifiable texts of one stream: drawn again only when what would be drawn
// changed, kept on a failed frame, scrolled, and dropped when unused.
#include <gtest/gtest.h>

#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <tuple>

#include "api_test_util.h"
#include "test_support.h"

namespace {

using zantrel::test::logged_once;

class ModifiableText : public api_test::Library {
 protected:
  void SetUp() override {
    Library::SetUp();
    stream_ = overlay_stream_context_create(o_get_fd(), 0, 0, 0, 1920, 1080, 7);
    slot_.in_use = 1;
    slot_.data.type = OVERLAY_TYPE_MODIFIABLE_TEXT;
    std::snprintf(t_.text, sizeof t_.text, "12:34:56");
    t_.font_size = 40;
    t_.overlay.position = {0.0f, 0.0f, 1, 1, OVERLAY_COORDS_NORMALIZED};
  }
  void TearDown() override {
    overlay_stream_context_destroy(stream_);
    Library::TearDown();
  }
  // The text, expanded without a time, drawn for this frame.
  uint32_t frame(overlay_stream_context* stream = nullptr) {
    stream = stream != nullptr ? stream : stream_;
    return o_get_modifiable_text_overlay_id(stream, o_modifiable_text_context_get(stream, 7),
                                            &slot_, nullptr);
  }

  overlay_stream_context* stream_ = nullptr;
  overlay_table_entry slot_{};
  overlay_text& t_ = slot_.data.description.text;
};

// What would be drawn decides: the text, the three colours and the size the
// renderer gets (scaled only when scalable, truncated, raised to 16,
// unscaled for a legacy band).
TEST_F(ModifiableText, DrawnAgainOnlyWhenItWouldLookDifferent) {
  constexpr overlay_color W = OVERLAY_COLOR_WHITE, B = OVERLAY_COLOR_BLACK, R = OVERLAY_COLOR_RED;
  const struct {
    const char* name;
    uint32_t legacy;
    int32_t size, new_size;
    overlay_color text, outline, background;  // after the change; white on black before
    bool redrawn;
  } cases[] = {
      {"Unchanged", 0, 40, 40, W, B, B, false},
      {"TextColour", 0, 40, 40, R, B, B, true},
      {"Outline", 0, 40, 40, W, R, B, true},
      {"Background", 0, 40, 40, W, B, R, true},
      {"Size", 0, 40, 41, W, B, B, true},
      {"BothRaisedTo16", 0, 10, 12, W, B, B, false},
      {"LegacyBandOneRowTaller", 1, 20, 21, W, B, B, true},  // the same em size
  };
  for (const auto& c : cases) {
    g_hash_table_remove_all(stream_->text_contexts);
    t_.overlay.legacy = c.legacy;
    std::tie(t_.font_size, t_.text_color, t_.outline_color, t_.background_color) =
        std::tuple(c.size, W, B, B);
    ASSERT_GT(frame(), 0u) << c.name;
    const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
    std::tie(t_.font_size, t_.text_color, t_.outline_color, t_.background_color) =
        std::tuple(c.new_size, c.text, c.outline, c.background);
    EXPECT_GT(frame(), 0u);
    EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER) - submits, c.redrawn ? 1 : 0) << c.name;
  }
  // A text is drawn once at every size it may have, on the camera's stream
  // sizes, scalable or not; one glyph is enough to see a redraw.
  std::snprintf(t_.text, sizeof t_.text, "1");
  for (uint32_t height : {1080u, 720u, 360u, 240u}) {
    overlay_stream_context* stream =
        overlay_stream_context_create(o_get_fd(), 0, 1, 0, height * 16 / 9, height, 7);
    for (int32_t scalable : {0, 1}) {
      for (t_.font_size = 10; t_.font_size <= 200; ++t_.font_size) {
        t_.scalable = scalable;
        const uint32_t id = frame(stream);
        const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
        EXPECT_EQ(frame(stream), id);
        ASSERT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), submits)
            << height << " rows, scalable " << scalable << ", size " << t_.font_size;
      }
    }
    overlay_stream_context_destroy(stream);
  }
}

TEST_F(ModifiableText, FailedFrameKeepsTheOverlayAndIsDrawnAgain) {
  const uint32_t first = frame();
  ASSERT_GT(first, 0u);
  camsim_overlay_info info{};
  EXPECT_EQ(camsim_get_overlay_info(first, &info), 0);
  EXPECT_EQ(info.record.nbr_buffers, 3u);
  // A shorter text needs a new overlay, which cannot be made this frame.
  std::snprintf(t_.text, sizeof t_.text, "12");
  ASSERT_EQ(camsim_inject_fault(CAMSIM_CREATE_OVERLAY, 1, ENOMEM), 0);
  EXPECT_EQ(frame(), 0u);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Could not create modifiable text overlay buffers\n"));
  EXPECT_EQ(camsim_get_overlay_info(first, &info), 0);
  const uint32_t next = frame();
  EXPECT_TRUE(next != 0 && next != first) << "drawn on the next frame";
  EXPECT_NE(camsim_get_overlay_info(first, &info), 0) << "the old one goes once the new shows";

  g_hash_table_remove_all(stream_->text_contexts);
  EXPECT_EQ(camsim_live_count(), 0) << "the context owned its overlay";
}

// A running clock draws into the overlay's three buffers in turn, each
// mapped once and then kept.
TEST_F(ModifiableText, BuffersAreMappedOnceAndKept) {
  ASSERT_GT(frame(), 0u);
  ASSERT_EQ(camsim_fail_call(CAMSIM_CALL_MMAP, 0, 0), 0);
  for (int second = 57; second < 63; ++second) {
    std::snprintf(t_.text, sizeof t_.text, "12:3%d:%02d", 4 + second / 60, second % 60);
    ASSERT_GT(frame(), 0u) << t_.text;
  }
  const long mapped = camsim_counted_calls(nullptr);
  camsim_fail_call(0, 0, 0);
  EXPECT_EQ(mapped, 2) << "the two buffers the first frame did not draw into";
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
  modifiable_text_context* text = o_modifiable_text_context_get(stream_, 7);
  for (const auto& c : cases) {
    overlay_entry_data data = slot_.data;
    overlay_text& t = data.description.text;
    t.overlay.width = data.width = c.width;
    t.scroll_speed = c.speed;
    t.overlay.position = {c.x, 0.5f, 1.0f, 1.0f, c.coords};
    EXPECT_EQ(o_update_scrolling_text(&data, text, 1920, id), 1);
    EXPECT_NEAR(t.overlay.position.x, c.expected_x, 1e-6) << c.x;
    EXPECT_NEAR(t.overlay.position.visible_width, c.expected_visible, 1e-6) << c.x;
  }
  EXPECT_TRUE(logged_once(LOG_WARNING,
                          "libzantrel: Scrolling text only supports normalized destination "
                          "coords.\n"));
  overlay_entry_data still = slot_.data;
  EXPECT_EQ(o_update_scrolling_text(&still, text, 1920, id), 0);
}

TEST_F(ModifiableText, UnusedContextsAreDropped) {
  int32_t handles[OVERLAY_SET_PLACES] = {3, -6, -6, -6, -6, -6, -6, 7};
  EXPECT_EQ(o_remove_unused_modifiable_text_context(GINT_TO_POINTER(7), nullptr, handles), 0);
  EXPECT_EQ(o_remove_unused_modifiable_text_context(GINT_TO_POINTER(4), nullptr, handles), 1);
  modifiable_text_context* text = o_modifiable_text_context_get(stream_, 7);
  EXPECT_EQ(o_modifiable_text_context_get(stream_, 7), text) << "found, not made again";
}

}  // namespace
