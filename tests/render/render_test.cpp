// Rendering real text with the camera's font: geometry, pixels, the glyph
// cache, the width of a changing text, and text as people type it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "render.h"
#include "test_support.h"

namespace {

// Every glyph drawing creates one image surface; counting them tells whether
// a rendering drew glyphs or only copied cached ones.
std::atomic<int> g_surfaces_created{0};

}  // namespace

extern "C" cairo_surface_t* cairo_image_surface_create(cairo_format_t format, int width,
                                                       int height) {
  using Real = cairo_surface_t* (*)(cairo_format_t, int, int);
  static auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "cairo_image_surface_create"));
  ++g_surfaces_created;
  return real(format, width, height);
}

namespace {

constexpr uint32_t kWhite = 0, kBlack = 1, kTransparent = 5;

struct ContextDeleter {
  void operator()(render_text_context* c) const { render_text_destroy(c); }
};
using Context = std::unique_ptr<render_text_context, ContextDeleter>;

struct Buffer : sized_buffer {
  explicit Buffer(const sized_buffer& b) : sized_buffer(b) {}
  ~Buffer() { free(data); }
  Buffer(const Buffer&) = delete;
  uint32_t pixel(uint32_t x, uint32_t y) const {
    return (data[y * stride + x / 8] >> (x % 8 * 4)) & 0xF;
  }
  std::vector<uint32_t> words() const { return {data, data + stride * rows}; }
};

std::vector<std::string> split(const char* text) {
  char** lines = nullptr;
  int count = 0;
  EXPECT_EQ(split_into_lines(&lines, &count, text), 0);
  std::vector<std::string> out(lines, lines + count);
  for (int i = 0; i < count; ++i) free(lines[i]);
  free(lines);
  return out;
}

// Renders text (split at newlines) in white with a black outline on
// transparent, as a text overlay is.
sized_buffer render(render_text_context* context, const char* text, int size,
                    overlay_color background = OVERLAY_COLOR_TRANSPARENT) {
  std::vector<std::string> lines = split(text);
  std::vector<char*> pointers;
  for (auto& line : lines) pointers.push_back(line.data());
  return render_text_buffer_multiline(context, pointers.data(), static_cast<int>(pointers.size()),
                                      OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK, background, size);
}

// Each format packs its pixels into 32-bit words in its own way: a red
// background is palette entry 2 in every nibble or byte, or the colour itself.
TEST(Render, ContextFormats) {
  const struct {
    overlay_format format;
    uint32_t pixels_per_word, red_word;
  } formats[] = {{OVERLAY_FORMAT_PALETTE_4BIT, 8, 0x22222222},
                 {OVERLAY_FORMAT_ARGB32, 1, 0xFFFF0000},
                 {OVERLAY_FORMAT_PALETTE_8BIT, 4, 0x02020202}};
  for (const auto& f : formats) {
    SCOPED_TRACE(f.format);
    Context context(render_text_init(f.format));
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(std::tuple(context->format, context->last_width), std::tuple(f.format, -1));
    Buffer b(render(context.get(), "Gate 4", 24, OVERLAY_COLOR_RED));
    ASSERT_NE(b.data, nullptr);
    EXPECT_EQ(b.stride * f.pixels_per_word, b.width);
    EXPECT_EQ(sized_buffer_datalen(&b), b.stride * b.rows * 4);
    EXPECT_EQ(b.words().front(), f.red_word) << "the top left corner is background";
    EXPECT_EQ(b.words().back(), f.red_word) << "the bottom right corner is background";
  }
  for (overlay_format format : {4u, 8u}) {
    EXPECT_EQ(render_text_init(format), nullptr);
    EXPECT_TRUE(zantrel::test::logged_once(LOG_ERR, "libzantrel: overlay_format " +
                                                        std::to_string(format) +
                                                        " not supported in render_text_init\n\n"));
  }
  render_text_destroy(nullptr);
}

TEST(Render, SplitIntoLines) {
  EXPECT_EQ(split(""), std::vector<std::string>{""});
  EXPECT_EQ(split("a\n"), (std::vector<std::string>{"a", ""}));
  EXPECT_EQ(split("a\r\nb"), (std::vector<std::string>{"a\r", "b"}));
  EXPECT_EQ(split(std::string(511, '\n').c_str()).size(), 512u);

  char** lines = reinterpret_cast<char**>(0x1);
  int count = 7;
  EXPECT_EQ(split_into_lines(&lines, &count, std::string(512, '\n').c_str()), -2);
  EXPECT_EQ(lines, reinterpret_cast<char**>(0x1));
  EXPECT_EQ(count, 7);
  EXPECT_NE(split_into_lines(&lines, &count, nullptr), 0);
  EXPECT_EQ(count, -1);
}

// For sizes a camera offers: geometry follows the font, the glyphs are
// filled in the text colour with the outline outside them, and the rows below
// the glyphs stay background.
TEST(Render, GeometryAndPixelsAcrossSizes) {
  Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  // An empty line is all background, one 16-pixel group wide.
  Buffer empty(render(context.get(), "", 16, OVERLAY_COLOR_RED));
  EXPECT_EQ(context->size, 11u);
  EXPECT_EQ(empty.width, 16u);
  EXPECT_EQ(empty.rows, context->line_height + 4 + (context->line_height + 4) % 2);
  EXPECT_EQ(empty.words(), std::vector<uint32_t>(empty.stride * empty.rows, 0x22222222));
  // The font's em is 0.7 of the size, truncated; the outline's pad 3% of it,
  // rounded up.
  const struct {
    int size;
    uint32_t em, pad;
  } sizes[] = {{16, 11, 1}, {24, 16, 1}, {40, 28, 1}, {64, 44, 2}, {100, 70, 3}, {200, 140, 5}};
  for (const auto& [size, em, pad] : sizes) {
    SCOPED_TRACE(size);
    context->last_width = -1;
    Buffer b(render(context.get(), "HIH\nI", size));
    ASSERT_NE(b.data, nullptr);
    EXPECT_EQ(context->size, em);
    EXPECT_EQ(b.width % 16, 0u);
    EXPECT_EQ(b.stride, b.width / 8);
    EXPECT_EQ(b.rows % 2, 0u);
    EXPECT_EQ(b.rows, b.content_height);
    EXPECT_GE(b.rows, 2 * context->line_height + 4 * pad);
    EXPECT_LE(b.rows, 2 * context->line_height + 4 * pad + 1);
    EXPECT_LE(b.content_width, b.width);
    EXPECT_GT(b.content_width, 3 * em / 2);

    // Across the left stem of the first H: background, then the outline
    // (its edge blended by cairo into darker or more transparent palette
    // entries, never the text colour), then the fill.
    const uint32_t y = pad + context->ascent - em / 3;
    uint32_t x = 0;
    while (x < b.width && b.pixel(x, y) == kTransparent) ++x;
    const uint32_t outline_start = x;
    bool solid_outline = false;
    while (x < b.width && b.pixel(x, y) != kWhite) solid_outline |= b.pixel(x++, y) == kBlack;
    ASSERT_LT(x, b.width);
    // Stroked, then filled: only the outer half of the line shows.
    EXPECT_GE(x - outline_start, 1u);
    EXPECT_LE(x - outline_start, pad + 1);
    if (size >= 64) {
      EXPECT_TRUE(solid_outline);
    }

    // Rows between the first line's baseline margin and the next line's
    // glyphs, and the bottom margin, hold no ink: these letters sit on it.
    for (uint32_t row : {pad + context->ascent + 2 * pad + 2, b.rows - 1}) {
      for (uint32_t x = 0; x < b.width; ++x) ASSERT_EQ(b.pixel(x, row), kTransparent) << row;
    }
  }
}

// Each glyph is drawn once; a renderer handed on to other texts draws them
// exactly as a fresh one: a kept glyph measured elsewhere in its first text is
// drawn again.
TEST(Render, CacheDrawsEachGlyphOnce) {
  Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  Buffer first(render(context.get(), "2026-11-22 12:34:56", 40));
  const guint glyphs = g_hash_table_size(context->glyph_cache);
  EXPECT_EQ(glyphs, 10u);  // 0 1 2 3 4 5 6 - : and the space
  g_surfaces_created = 0;
  Buffer second(render(context.get(), "2026-11-22 12:34:56", 40));
  EXPECT_EQ(g_surfaces_created, 0);
  EXPECT_EQ(first.words(), second.words());

  // A new digit draws one glyph; a new colour or size redraws from scratch.
  Buffer third(render(context.get(), "2026-11-22 12:34:57", 40));
  EXPECT_EQ(g_surfaces_created, 1);
  Buffer red(render(context.get(), "22", 40, OVERLAY_COLOR_RED));
  EXPECT_EQ(g_hash_table_size(context->glyph_cache), 1u);
  Buffer larger(render(context.get(), "22", 50, OVERLAY_COLOR_RED));
  EXPECT_EQ(g_hash_table_size(context->glyph_cache), 1u);
  EXPECT_EQ(g_surfaces_created, 3);
  EXPECT_EQ(context->size, 35u);

  const char* const before = "Lobby camera - visitors please report at the front desk";
  const char* const after = "Delivery expected at gate 2 - doors open at 12:30";
  Context fresh(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  Buffer old_text(render(context.get(), before, 18));
  zantrel::render::reuse_glyph_cache(context.get());
  EXPECT_EQ(context->last_width, -1);
  g_surfaces_created = 0;
  Buffer again(render(context.get(), after, 18));
  const int drawn_on_reuse = g_surfaces_created.load();
  Buffer expected(render(fresh.get(), after, 18));
  EXPECT_EQ(again.width, expected.width);
  EXPECT_EQ(again.words(), expected.words());
  EXPECT_LT(drawn_on_reuse, g_surfaces_created - drawn_on_reuse) << "kept glyphs serve";
}

TEST(Render, ChangingTextKeepsItsWidth) {
  Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  Buffer clock(render(context.get(), "12:34:56", 40));
  Buffer shorter(render(context.get(), "12:34:5", 40));  // one narrow glyph less
  EXPECT_EQ(shorter.width, clock.width);
  EXPECT_LT(shorter.content_width, clock.content_width);
  Buffer much_shorter(render(context.get(), "12:", 40));
  EXPECT_EQ(much_shorter.width, much_shorter.content_width);
  EXPECT_LT(much_shorter.width, clock.width);
  EXPECT_GT(Buffer(render(context.get(), "12:34:56:78", 40)).width, clock.width);
}

TEST(Render, TextPeopleType) {
  Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  Buffer cjk(render(context.get(), "东门\n\nCam 1", 32));
  EXPECT_GT(g_hash_table_size(context->glyph_cache), 5u);
  EXPECT_EQ(cjk.rows, 3 * context->line_height + 4 + (3 * context->line_height) % 2);
  // Strings cairo cannot convert are the fuzz corpus's (invalid_utf8_lines).
  Buffer many(render(context.get(), std::string(511, '\n').c_str(), 16));
  EXPECT_EQ(many.rows % 2, 0u);
  EXPECT_GE(many.rows, 512 * context->line_height);
}

TEST(Render, LegacyBand) {
  Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
  Buffer band(render_text_buffer_legacy(context.get(), "Gate 4", OVERLAY_COLOR_WHITE,
                                        OVERLAY_COLOR_BLACK, OVERLAY_COLOR_BLACK, OVERLAY_COLOR_RED,
                                        40, 1918, 8));
  ASSERT_NE(band.data, nullptr);
  EXPECT_EQ(band.width, 1920u);
  EXPECT_EQ(band.rows, 48u);
  EXPECT_EQ(band.content_width, 1918u);
  EXPECT_EQ(band.content_height, 40u);
  const std::vector<uint32_t> words = band.words();
  for (uint32_t row = 40; row < 48; ++row) {
    for (uint32_t w = 0; w < band.stride; ++w) ASSERT_EQ(words[row * band.stride + w], 0x22222222u);
  }
  EXPECT_EQ(band.pixel(1900, 20), kBlack);
  EXPECT_EQ(context->last_width, -1);
  // Text beyond the band is cut at its edge.
  Buffer narrow(render_text_buffer_legacy(context.get(), "A very long text for a band",
                                          OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK,
                                          OVERLAY_COLOR_BLACK, OVERLAY_COLOR_RED, 40, 40, 0));
  EXPECT_EQ(narrow.width, 48u);
  EXPECT_EQ(narrow.rows, 40u);
}

// Two threads draw different sizes at once from the process's first use of
// the font on (run under ThreadSanitizer too); each draws what a context
// draws alone, and every context uses the one face.
TEST(Render, ContextsShareOneFaceAcrossThreads) {
  ASSERT_FALSE(zantrel::render::shared_font_opened()) << "run this test in a process of its own";
  const char* const texts[] = {"2026-11-22 12:34:56", "Gate 4\n东门", "12:34:57"};
  const int sizes[2] = {24, 57};
  std::vector<uint32_t> drawn[2];
  FT_Face faces[2] = {};
  auto draw_all = [&](int i) {
    Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
    for (const char* text : texts) {
      Buffer b(render(context.get(), text, sizes[i]));
      drawn[i] = b.words();
    }
    faces[i] = context->ft_face;
  };
  std::thread first(draw_all, 0);
  std::thread second(draw_all, 1);
  first.join();
  second.join();
  ASSERT_NE(faces[0], nullptr);
  EXPECT_EQ(faces[0], faces[1]);
  const std::vector<uint32_t> alone[2] = {drawn[0], drawn[1]};
  for (int i = 0; i < 2; ++i) {
    draw_all(i);
    EXPECT_EQ(drawn[i], alone[i]) << sizes[i];
  }
  // The font file is mapped once, however many contexts drew.
  for (int i = 0; i < 50; ++i) draw_all(i % 2);
  std::ifstream maps("/proc/self/maps");
  int mappings = 0;
  for (std::string line; std::getline(maps, line);) mappings += line.ends_with(FONT_PATH) ? 1 : 0;
  EXPECT_EQ(mappings, 1);
}

// A font out of reach (a transient EMFILE, a missing file) fails the rendering
// with a message; it is not kept, so the font is tried again and, once it can
// be opened, texts render.
TEST(Render, MissingFontFailsTheRenderingAndIsTriedAgain) {
  EXPECT_EQ(zantrel::test::run_in_child([] {
              if (mount("tmpfs", "/usr/share/fonts/truetype/wqy", "tmpfs", 0, nullptr) != 0)
                return 2;
              Context context(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
              const sized_buffer missing = render(context.get(), "x", 16);
              const bool logged = zantrel::test::logged_once(
                  LOG_ERR,
                  "libzantrel: Could not open the font "
                  "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc (FreeType error 1)\n");
              umount("/usr/share/fonts/truetype/wqy");
              sized_buffer found = render(context.get(), "x", 16);
              const bool ok = missing.data == nullptr && logged && found.data != nullptr;
              free(found.data);
              return ok ? 0 : 1;
            }),
            0);
}

}  // namespace
