// camsim_compose: the pixels of each decodable type land where the record
// says, read back from the PNG with cairo.
#include <cairo.h>
#include <stdlib.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "camsim_test_util.h"

namespace camsim_test {
namespace {

constexpr std::uint32_t kDark = 0xFF404040u;  // test picture at (0..15, 0..15)

class Png {
 public:
  explicit Png(const std::string& path)
      : surface_(cairo_image_surface_create_from_png(path.c_str())) {}
  ~Png() { cairo_surface_destroy(surface_); }
  bool ok() const { return cairo_surface_status(surface_) == CAIRO_STATUS_SUCCESS; }
  int width() const { return cairo_image_surface_get_width(surface_); }
  std::uint32_t at(int x, int y) const {
    const unsigned char* row =
        cairo_image_surface_get_data(surface_) + y * cairo_image_surface_get_stride(surface_);
    std::uint32_t v;
    std::memcpy(&v, row + 4 * x, 4);
    return v;
  }

 private:
  cairo_surface_t* surface_;
};

class Compose : public CamsimTest {
 protected:
  void SetUp() override {
    CamsimTest::SetUp();
    char dir[] = "/tmp/camsim-compose-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    unlink(png().c_str());
    rmdir(dir_.c_str());
  }
  std::string png() const { return dir_ + "/frame.png"; }

  // An overlay of `type` at (x, y) filled by `fill`, shown.
  std::uint32_t shown_overlay(internal_overlay r,
                              const std::function<void(unsigned char*, std::uint32_t)>& fill) {
    const std::uint32_t id = create(node_.fd(), r);
    internal_overlay got{};
    camsim_get_overlay(id, &got);
    EXPECT_GT(fill_and_submit(node_.fd(), id, got.buffer_size, fill), 0);
    return id;
  }

  Node node_;
  std::string dir_;
};

internal_overlay at(internal_overlay r, std::uint32_t x, std::uint32_t y, std::uint32_t coord = 0) {
  r.x = x;
  r.y = y;
  r.coord_type = coord;
  return r;
}

void argb_fill(unsigned char* p, std::uint32_t n, std::uint32_t argb) {
  for (std::uint32_t i = 0; i + 4 <= n; i += 4) std::memcpy(p + i, &argb, 4);
}

TEST_F(Compose, EachFormatLandsWhereItsPositionSays) {
  // Palette bank 1 entry 2: red as the palette code sends it.
  cam_palette_color red{2, 1, 76, 85, 255, 255, {0, 0}, 0};
  ASSERT_EQ(command(node_.fd(), CAM_IOC_SET_PALETTE_COLOR, &red), 0);

  struct Case {
    const char* name;
    internal_overlay rec;
    std::function<void(unsigned char*, std::uint32_t)> fill;
    int px, py;  // a pixel inside, relative to the frame
    std::uint32_t inside;
  };
  internal_overlay onebit = at(record(6, 10, 4), 20, 40);
  onebit.palette_colors[0] = 0xFF0000FFu;
  onebit.palette_colors[1] = 0xFF00FF00u;
  const std::vector<Case> cases = {
      {"argb32 in pixels", at(record(4, 8, 6), 100, 50),
       [](unsigned char* p, std::uint32_t n) { argb_fill(p, n, 0xFF00FF00u); }, 100, 50,
       0xFF00FF00u},
      {"argb32 normalized", at(record(4, 8, 6), 8192, 4096, OVERLAY_COORDS_NORMALIZED),
       [](unsigned char* p, std::uint32_t n) { argb_fill(p, n, 0xFF0000FFu); }, 160, 60,
       0xFF0000FFu},
      // Index 2 in the low nibble is pixel 0; the high nibble (index 0,
      // never written: transparent) is pixel 1.
      {"4-bit dual through bank 1", at(record(5, 4, 2), 60, 90),
       [](unsigned char* p, std::uint32_t) { std::memset(p, 0x02, 4); }, 60, 90, 0xFFFE0000u},
      // Bit 0 is the leftmost pixel: 0x01 sets pixel 0 only.
      {"1-bit, leftmost pixel in bit 0", onebit,
       [](unsigned char* p, std::uint32_t n) {
         for (std::uint32_t i = 0; i < n; ++i) p[i] = (i % 2 == 0) ? 0x01 : 0x00;
       },
       20, 40, 0xFF00FF00u},
      {"Y/chroma/alpha planes", at(record(8, 4, 2), 200, 100),
       [](unsigned char* p, std::uint32_t) {
         std::memset(p, 76, 8);                                         // luma
         for (int i = 0; i < 4; i += 2) p[8 + i] = 255, p[9 + i] = 85;  // plane A (Cr, Cb)
         std::memset(p + 16, 255, 8);                                   // alpha
       },
       201, 101, 0xFFFE0000u},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_EQ(command(node_.fd(), CAM_IOC_SET_PALETTE_COLOR, &red), 0);
    const std::uint32_t ids[8] = {shown_overlay(c.rec, c.fill), 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(camsim_compose(ids, 320, 240, png().c_str()), 1);
    Png frame(png());
    ASSERT_TRUE(frame.ok());
    ASSERT_EQ(frame.width(), 320);
    EXPECT_EQ(frame.at(c.px, c.py), c.inside);
    EXPECT_EQ(frame.at(0, 0), kDark);
    if (c.rec.type == 5 || c.rec.type == 6) {
      EXPECT_NE(frame.at(c.px + 1, c.py), c.inside);
    }
  }
}

TEST_F(Compose, PlaceZeroIsOnTopAndVisibleSizeCuts) {
  internal_overlay under = at(record(4, 20, 20), 32, 32);
  internal_overlay over = at(record(4, 20, 20), 32, 32);
  over.visible_width = 10;  // only the left half shows
  const std::uint32_t blue =
      shown_overlay(under, [](unsigned char* p, std::uint32_t n) { argb_fill(p, n, 0xFF0000FFu); });
  const std::uint32_t red =
      shown_overlay(over, [](unsigned char* p, std::uint32_t n) { argb_fill(p, n, 0xFFFF0000u); });
  const std::uint32_t gone = 4242;
  const std::uint32_t ids[8] = {red, 0, gone, 0, 0, 0, 0, blue};
  ASSERT_EQ(camsim_compose(ids, 128, 128, png().c_str()), 2);
  Png frame(png());
  ASSERT_TRUE(frame.ok());
  EXPECT_EQ(frame.at(32, 32), 0xFFFF0000u);
  EXPECT_EQ(frame.at(41, 51), 0xFFFF0000u);
  EXPECT_EQ(frame.at(42, 40), 0xFF0000FFu);
  EXPECT_EQ(frame.at(51, 51), 0xFF0000FFu);
  EXPECT_EQ(frame.at(52, 52), kDark);
}

TEST_F(Compose, UndecodableTypesAreMarkedBoxes) {
  const std::uint32_t id =
      shown_overlay(at(record(1, 9, 9), 16, 16), [](unsigned char*, std::uint32_t) {});
  const std::uint32_t ids[8] = {id};
  ASSERT_EQ(camsim_compose(ids, 64, 64, png().c_str()), 1);
  Png frame(png());
  ASSERT_TRUE(frame.ok());
  EXPECT_EQ(frame.at(16, 20), 0xFFFF00FFu);  // outline
  EXPECT_EQ(frame.at(20, 20), 0xFFFF00FFu);  // both diagonals cross in the middle
  EXPECT_EQ(frame.at(18, 17), kDark);        // inside, off the lines: the picture
}

}  // namespace
}  // namespace camsim_test
