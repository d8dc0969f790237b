// Pixel primitives: nearest palette colour, background fill words, packed
// copies at unaligned positions, and the re-render decision.
#include <gtest/gtest.h>

#include <vector>

#include "render.h"
#include "test_support.h"

using zantrel::render::blit_sized_buffer;
using zantrel::test::logged_once;

namespace {

const uint32_t* palette() {
  const uint32_t* colors = nullptr;
  int first = 0;
  palette_get_default(&colors, &first);
  return colors;
}

// A buffer over caller-owned words.
sized_buffer view(std::vector<uint32_t>& words, uint32_t stride, overlay_format format) {
  const uint32_t per_word = zantrel::render::packing(format)->pixels_per_word;
  const auto rows = static_cast<uint32_t>(words.size() / stride);
  return {stride, rows, stride * per_word, rows, 0, 0, words.data(), format};
}

TEST(Pixels, NearestPaletteColour) {
  const struct {
    uint32_t color;
    int32_t index;
  } cases[] = {
      {0x00000000, 5},  // entries 5 and 15 are both transparent: the lower wins
      {0xFFFFFFFF, 0},  {0xFF7F7F7F, 3},
      {0xFF808080, 12}, {0x80808080, 7},  // alpha outweighs the colour difference
      {0x80000000, 7},  {0x40404040, 11},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(get_palette_value(c.color, palette(), 16, 0), c.index) << std::hex << c.color;
  }
  EXPECT_EQ(get_palette_value(0xFFFFFFFF, palette(), 3, 3), -1);
  EXPECT_EQ(get_palette_value(0xFFFFFFFF, palette(), 16, 1), 13);  // a window of the palette
  EXPECT_EQ(pixel_distance(0xFF102030, 0x00132537), 9u + 25u + 49u);
}

TEST(Pixels, BackgroundFillWords) {
  const struct {
    overlay_format format;
    uint32_t black, transparent;
  } cases[] = {
      {OVERLAY_FORMAT_PALETTE_4BIT, 0x11111111, 0x55555555},
      {OVERLAY_FORMAT_PALETTE_8BIT, 0x01010101, 0x05050505},
      {OVERLAY_FORMAT_ARGB32, 0xFF000000, 0x00000000},
  };
  for (const auto& c : cases) {
    std::vector<uint32_t> words(2 * 10, 0xDEADBEEF);
    sized_buffer buffer = view(words, 2, c.format);
    ASSERT_EQ(set_background(&buffer, OVERLAY_COLOR_BLACK, 6, OVERLAY_COLOR_TRANSPARENT, 4), 0);
    for (size_t i = 0; i < words.size(); ++i) {
      EXPECT_EQ(words[i], i < 12 ? c.black : c.transparent) << c.format << " word " << i;
    }
    EXPECT_EQ(set_background(&buffer, OVERLAY_COLOR_WHITE, 6, OVERLAY_COLOR_WHITE, 5), -2);
    EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: not matching destination heights\n"));
    EXPECT_EQ(words[0], c.black) << "a refused fill leaves the buffer alone";
    zantrel::test::clear_captured_logs();
  }
  // An invalid colour code fills with all ones; a negative count fills nothing.
  std::vector<uint32_t> words(4, 0);
  sized_buffer buffer = view(words, 1, OVERLAY_FORMAT_PALETTE_4BIT);
  ASSERT_EQ(set_background(&buffer, 9, -1, OVERLAY_COLOR_WHITE, 5), 0);
  EXPECT_EQ(words, (std::vector<uint32_t>(4, 0x00000000)));
  ASSERT_EQ(set_background(&buffer, 9, 4, OVERLAY_COLOR_WHITE, 0), 0);
  EXPECT_EQ(words, (std::vector<uint32_t>(4, 0xFFFFFFFF)));
  buffer.format = OVERLAY_FORMAT_1BIT;
  EXPECT_EQ(set_background(&buffer, OVERLAY_COLOR_WHITE, 4, OVERLAY_COLOR_WHITE, 0), -1);
  EXPECT_TRUE(logged_once(
      LOG_WARNING, "libzantrel: set_background to sized buffer of unexpected format 8!\n\n"));
}

TEST(Pixels, CopyAtAnyPixelPosition) {
  const struct {
    overlay_format format;
    uint32_t x, y;
    int result;
    std::vector<uint32_t> expected;  // destination: 2 words x 2 rows, filled with fill
    uint32_t fill;
  } cases[] = {
      {OVERLAY_FORMAT_PALETTE_4BIT, 4, 0, 0, {0x43210000, 0x00008765, 0, 0}, 0},
      // Pixels left of x and right of the source row keep their values.
      {OVERLAY_FORMAT_PALETTE_4BIT, 4, 1, 0, {~0u, ~0u, 0x4321FFFF, 0xFFFF8765}, ~0u},
      {OVERLAY_FORMAT_PALETTE_4BIT, 12, 0, 0, {0, 0x43210000, 0, 0}, 0},  // last word cut off
      {OVERLAY_FORMAT_PALETTE_8BIT, 3, 0, 0, {0x21000000, 0x00876543, 0, 0}, 0},
      {OVERLAY_FORMAT_ARGB32, 1, 0, 0, {0, 0x87654321, 0, 0}, 0},
      {OVERLAY_FORMAT_PALETTE_4BIT, 16, 0, 0, {0, 0, 0, 0}, 0},   // at the width: nothing
      {OVERLAY_FORMAT_PALETTE_4BIT, 24, 0, -1, {0, 0, 0, 0}, 0},  // a word beyond: refused
      {OVERLAY_FORMAT_PALETTE_4BIT, 0, 2, 0, {0, 0, 0, 0}, 0},    // below the last row
      {OVERLAY_FORMAT_PALETTE_4BIT, 0, static_cast<uint32_t>(-1), 0, {0, 0, 0, 0}, 0},
      {OVERLAY_FORMAT_PALETTE_4BIT, static_cast<uint32_t>(-4), 0, -1, {0, 0, 0, 0}, 0},
  };
  for (const auto& c : cases) {
    std::vector<uint32_t> source_words{0x87654321};
    std::vector<uint32_t> words(4, c.fill);
    sized_buffer source = view(source_words, 1, c.format);
    sized_buffer destination = view(words, 2, c.format);
    EXPECT_EQ(blit_sized_buffer(&destination, &source, c.x, c.y), c.result) << c.x << "," << c.y;
    EXPECT_EQ(words, c.expected) << "format " << c.format << " at " << c.x << "," << c.y;
  }
  std::vector<uint32_t> a{1}, b{1};
  sized_buffer four = view(a, 1, OVERLAY_FORMAT_PALETTE_4BIT);
  sized_buffer eight = view(b, 1, OVERLAY_FORMAT_PALETTE_8BIT);
  EXPECT_EQ(blit_sized_buffer(&four, &eight, 0, 0), -1);
}

TEST(Pixels, RerenderDecision) {
  render_text_context context{};
  context.size = 28;
  context.text_color = OVERLAY_COLOR_WHITE;
  overlay_text text{};
  text.font_size = 40;
  text.text_color = OVERLAY_COLOR_WHITE;
  text.background_color = OVERLAY_COLOR_BLACK;
  text.outline_color = OVERLAY_COLOR_BLACK;
  EXPECT_EQ(utils_compare_overlay_text_color_and_size(&context, &text, 1.0f), 0);
  EXPECT_EQ(utils_compare_overlay_text_color_and_size(&context, &text, 0.5f), 1);
  text.outline_color = OVERLAY_COLOR_RED;
  EXPECT_EQ(utils_compare_overlay_text_color_and_size(&context, &text, 1.0f), 1);
  text.outline_color = OVERLAY_COLOR_BLACK;
  text.background_color = OVERLAY_COLOR_RED;
  EXPECT_EQ(utils_compare_overlay_text_color_and_size(&context, &text, 1.0f), 1);
  // Rendered for size 10 the renderers' callers raise it to 16 (size 11),
  // which the comparison does not do.
  text.background_color = OVERLAY_COLOR_BLACK;
  text.font_size = 10;
  context.size = 11;
  EXPECT_EQ(utils_compare_overlay_text_color_and_size(&context, &text, 1.0f), 1);
  sized_buffer buffer{8, 20, 64, 20, 0, 0, nullptr, OVERLAY_FORMAT_PALETTE_4BIT};
  EXPECT_EQ(sized_buffer_datalen(&buffer), 640u);
}

}  // namespace
