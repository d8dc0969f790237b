// zantrelctl render-text: a preview PNG of a text as the library draws it.
#include <cairo.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "test_support.h"

namespace {

// The PNG's width and height, or (0, 0) when there is none.
std::pair<int, int> png_size(const std::string& path) {
  cairo_surface_t* s = cairo_image_surface_create_from_png(path.c_str());
  std::pair<int, int> size{cairo_image_surface_get_width(s), cairo_image_surface_get_height(s)};
  cairo_surface_destroy(s);
  return size;
}

TEST(ZantrelctlRenderText, SizesFollowLinesAndZoom) {
  const std::string out = "/dev/shm/render-text.png";
  auto render = [&](const std::string& arguments, int* status) {
    unlink(out.c_str());
    zantrel::test::command_output(
        std::string(ZANTRELCTL) + " render-text -o " + out + " " + arguments + " 2>/dev/null",
        status);
    return png_size(out);
  };
  int status = -1;
  const auto [width, height] = render("'Gate 4'", &status);
  ASSERT_EQ(status, 0);
  ASSERT_GT(width * height, 0);
  // Relative to that one line: lines stack, a zoom enlarges every pixel.
  const struct {
    const char* name;
    const char* arguments;
    int status;
    int width_times, height_times;  // 0: no picture
  } runs[] = {
      {"two_lines", "'Gate 4\\nGate 4'", 0, 1, 2},
      {"zoomed", "--zoom 2 'Gate 4'", 0, 2, 2},
      {"unknown_format", "--format 2bit 'Gate 4'", 2, 0, 0},
      {"no_text", "", 2, 0, 0},
  };
  for (const auto& run : runs) {
    const auto [w, h] = render(run.arguments, &status);
    EXPECT_EQ(status, run.status) << run.name;
    EXPECT_EQ(w, width * run.width_times) << run.name;
    // Two lines are twice one line's glyph rows, within the shared margins.
    EXPECT_GE(h, run.height_times * height - (run.height_times > 1 ? height / 4 : 0)) << run.name;
    EXPECT_LE(h, run.height_times * height) << run.name;
  }
}

}  // namespace
