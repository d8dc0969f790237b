// Text and image overlays through the simulated driver: types, the dual
// 4-bit buffer, updates that swap hardware overlays, images from ".ovl"
// files and bitmap directories.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "api_test_util.h"
#include "test_support.h"

namespace {

using zantrel::test::logged_once;

overlay_text text_record(const char* text, int size = 32, int scroll = 0) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.font_size = size;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.outline_color = OVERLAY_COLOR_BLACK;
  t.background_color = OVERLAY_COLOR_TRANSPARENT;
  t.scroll_speed = scroll;
  t.overlay.position = {0.1f, 0.1f, 1, 1, OVERLAY_COORDS_NORMALIZED};
  return t;
}

using api_test::entry;

class TextImage : public api_test::Library {
 protected:
  void SetUp() override {
    Library::SetUp();
    char dir[] = "/dev/shm/images-XXXXXX";  // goes with the test's private /dev/shm
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  std::string dir_;
};

TEST_F(TextImage, TextTypesAndLimits) {
  for (auto [text, scroll, type] : {std::tuple{"Gate 4 North", 0, OVERLAY_TYPE_TEXT},
                                    {"Gate %H", 0, OVERLAY_TYPE_MODIFIABLE_TEXT},
                                    {"#T", 0, OVERLAY_TYPE_MODIFIABLE_TEXT},
                                    {"Gate 4 North", 5, OVERLAY_TYPE_MODIFIABLE_TEXT}}) {
    overlay_text t = text_record(text, 32, scroll);
    const int handle = overlay_text_create(&t);
    ASSERT_GT(handle, 0) << text;
    EXPECT_EQ(std::tuple(entry(handle).type, entry(handle).description.text.scroll_speed),
              std::tuple(type, scroll))
        << text;
  }
  overlay_text after_nul = text_record("Gate");
  after_nul.text[5] = '#';
  EXPECT_EQ(entry(overlay_text_create(&after_nul)).type, OVERLAY_TYPE_TEXT);
  EXPECT_EQ(after_nul.text_length, 4u);

  overlay_text clock = text_record("#D");
  ASSERT_GT(overlay_text_create(&clock), 0);
  EXPECT_EQ(clock.text_length, 10u);  // YYYY-MM-DD
  overlay_text big = text_record("A", 200);
  EXPECT_GT(overlay_text_create(&big), 0);
  const int live = camsim_live_count();
  big.font_size = 201;
  EXPECT_EQ(overlay_text_create(&big), -2);
  EXPECT_EQ(camsim_live_count(), live);
}

TEST_F(TextImage, TextBufferHoldsBothNibbleOrders) {
  overlay_text t = text_record("Gate 4");
  const int handle = overlay_text_create(&t);
  ASSERT_GT(handle, 0);
  const overlay_entry_data data = entry(handle);
  EXPECT_EQ(t.overlay.format, OVERLAY_FORMAT_PALETTE_4BIT_DUAL);
  EXPECT_TRUE(t.overlay.width % 16 == 0 && data.width <= t.overlay.width);
  EXPECT_EQ(data.height, t.overlay.height);
  std::vector<unsigned char> shown(t.overlay.buffer_size);
  ASSERT_EQ(camsim_read_shown_buffer(data.kernel_id, shown.data(), shown.size()),
            long(shown.size()));
  const size_t half = shown.size() / 2;
  std::set<unsigned char> values;
  for (size_t i = 0; i < half; ++i) {
    values.insert(shown[i]);
    ASSERT_EQ(shown[half + i], static_cast<unsigned char>((shown[i] << 4) | (shown[i] >> 4)));
  }
  EXPECT_GT(values.size(), 2u) << "glyphs, outline and background";
}

TEST_F(TextImage, UpdateSwapsTheOverlayAndKeepsTheSource) {
  overlay_text t = text_record("Gate 4");
  const int handle = overlay_text_create(&t);
  ASSERT_EQ(overlay_add_to_source(o_get_fd(), handle), 0);
  const uint32_t old_id = entry(handle).kernel_id;
  overlay_text changed = text_record("Gate 5 South");
  ASSERT_EQ(overlay_text_update(handle, &changed), 0);
  camsim_overlay_info info{};
  EXPECT_NE(camsim_get_overlay_info(old_id, &info), 0) << "the old overlay is destroyed";
  ASSERT_EQ(camsim_get_overlay_info(entry(handle).kernel_id, &info), 0);
  EXPECT_EQ(info.in_source, 1u);
  EXPECT_EQ(camsim_live_count(), 1);

  for (int bad : {0, 101}) {
    EXPECT_EQ(overlay_text_update(bad, &changed), -6);
    EXPECT_EQ(camsim_live_count(), 1) << "no overlay outlives a refused update";
  }
}

// A legacy band's width for a stream is checked with the stream copies; here
// the multi-line size floor and the format the record gets.
TEST_F(TextImage, RenderRaisesSmallSizesAndRendersPalettePixels) {
  overlay_text small = text_record("x", 10), sixteen = text_record("x", 16);
  free(overlay_text_render(nullptr, &small, nullptr, OVERLAY_FORMAT_ARGB32));
  free(overlay_text_render(nullptr, &sixteen, nullptr, OVERLAY_FORMAT_PALETTE_4BIT));
  EXPECT_EQ(small.overlay.height, sixteen.overlay.height) << "raised to 16";
  EXPECT_EQ(small.overlay.format, OVERLAY_FORMAT_PALETTE_4BIT);
}

TEST_F(TextImage, ImageFromFileLoadsOnlyWhenChanged) {
  overlay_image image{};
  const std::string ovl = dir_ + "/logo.ovl";
  api_test::write_ovl(ovl, 64, 48, '\xFF');
  std::snprintf(image.path, sizeof image.path, "%s", ovl.c_str());
  const int handle = overlay_image_create(&image);
  ASSERT_GT(handle, 0);
  overlay_entry_data data = entry(handle);
  EXPECT_EQ(std::tuple(data.type, data.width), std::tuple(OVERLAY_TYPE_IMAGE, 64u));
  struct stat info {};
  stat(ovl.c_str(), &info);
  EXPECT_EQ(image.modified_time, static_cast<uint32_t>(info.st_mtime));

  const long creates = camsim_call_count(CAMSIM_CREATE_OVERLAY);
  ASSERT_EQ(overlay_image_update(handle, &image), 0);
  EXPECT_TRUE(camsim_call_count(CAMSIM_CREATE_OVERLAY) == creates &&
              entry(handle).kernel_id == data.kernel_id);

  const timespec later[2] = {{info.st_mtime + 10, 0}, {info.st_mtime + 10, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, ovl.c_str(), later, 0), 0);
  // A failed load is reported and changes nothing, so the same call loads
  // the new file once the driver takes it.
  ASSERT_EQ(camsim_inject_fault(CAMSIM_CREATE_OVERLAY, 1, ENOMEM), 0);
  EXPECT_EQ(overlay_image_update(handle, &image), -1);
  const overlay_entry_data kept = entry(handle);
  EXPECT_EQ(std::memcmp(&kept, &data, sizeof data), 0);
  ASSERT_EQ(overlay_image_update(handle, &image), 0);
  EXPECT_TRUE(entry(handle).kernel_id != data.kernel_id && camsim_live_count() == 1);
}

TEST_F(TextImage, ScalableImagesAndMissingPaths) {
  api_test::write_bmp(dir_ + "/bmp", 320, 240, '\x80');
  overlay_image image{};
  std::snprintf(image.path, sizeof image.path, "%s", dir_.c_str());
  const int handle = overlay_image_create(&image);
  ASSERT_GT(handle, 0);
  EXPECT_EQ(std::tuple(entry(handle).type, entry(handle).kernel_id, camsim_live_count()),
            std::tuple(OVERLAY_TYPE_SCALABLE_IMAGE, 0, 0));
  EXPECT_EQ(std::tuple(image.overlay.width, image.overlay.height), std::tuple(320u, 240u));

  EXPECT_EQ(overlay_is_scalable_image(dir_.c_str()), 1);
  EXPECT_EQ(overlay_is_scalable_image((dir_ + "/bmp").c_str()), 0);
  const std::string missing = dir_ + "/none";
  EXPECT_EQ(overlay_is_scalable_image(missing.c_str()), -2);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Image overlay file doesn't exist, " + missing + "\n"));

  // A scalable image has no overlay of its own to hand to the source.
  overlay_text t = text_record("Gate");
  const int source = overlay_text_create(&t);
  ASSERT_EQ(overlay_add_to_source(o_get_fd(), source), 0);
  EXPECT_EQ(overlay_image_update(source, &image), -1);
  EXPECT_EQ(entry(source).type, OVERLAY_TYPE_TEXT);
}

}  // namespace
