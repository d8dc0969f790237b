// The camera device layer against the simulated driver: the overlay
// description's pixel formats and position arithmetic; the palette's default
// colours, YCbCr conversion and colour commands; ".ovl" files made by ovlconv
// from PNGs, what their planes hold, the files and driver refusals the loader
// turns away, and ovlconv's round trip and errors.
#include <cairo.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "camsim.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;
const char* const kUnknownSize =
    "libzantrel: Overlay format is not known or implemented. Assuming same size as "
    "OVERLAY_FORMAT_FULL_COLOR.\n";

TEST(FormatTable, TypeSlotsAndSize) {
  // format, internal type (-2: none), slots, width, height, size
  const std::tuple<overlay_format, int32_t, int32_t, uint32_t, uint32_t, int32_t> cases[] = {
      {OVERLAY_FORMAT_FULL_COLOR, 1, 1, 3, 3, 13},
      {OVERLAY_FORMAT_16BIT, 3, 1, 5, 3, 30},
      {OVERLAY_FORMAT_8BIT, 2, 1, 5, 3, 15},
      {OVERLAY_FORMAT_PALETTE_4BIT, 0, 1, 5, 3, 7},
      {OVERLAY_FORMAT_PALETTE_4BIT_DUAL, 5, 1, 5, 3, 15},
      {5, -2, 1, 3, 3, 13},
      {6, -2, 1, 2, 2, 6},
      {OVERLAY_FORMAT_ARGB32, 4, 1, 5, 3, 60},
      {OVERLAY_FORMAT_1BIT, 6, 1, 7, 5, 5},
      {OVERLAY_FORMAT_1BIT, 6, 1, 9, 2, 4},
      {OVERLAY_FORMAT_PALETTE_8BIT, -2, 1, 3, 3, 13},
      {OVERLAY_FORMAT_20BIT, 7, 2, 2, 2, 10},
      {OVERLAY_FORMAT_YCBCR_ALPHA, 8, 2, 5, 3, 45},
      {12, -2, 1, 3, 3, 13},
      {0xFFFFFFFFU, -2, 1, 3, 3, 13}};
  for (const auto& [format, type, slots, width, height, size] : cases) {
    clear_captured_logs();
    EXPECT_EQ(std::tuple(o_get_overlay_internal_type(format), o_get_nbr_internal_slots(format),
                         o_calculate_overlay_size(width, height, format)),
              std::tuple(type, slots, size))
        << "format " << format;
    // Two lookups of the type, each logging once when there is none.
    EXPECT_EQ(captured_logs().size(), type >= 0 ? 0U : 3U) << "format " << format;
    EXPECT_TRUE(type >= 0 || logged_once(LOG_ERR, kUnknownSize)) << "format " << format;
  }
}

TEST(StandardPalette, CopiesColoursOnlyForOneBit) {
  overlay ovl{};
  ovl.palette_bank = 1;
  ovl.palette_colors[0] = 0x11;
  ovl.palette_colors[3] = 0x44;
  internal_overlay rec{};
  rec.palette_colors[0] = 0xAA;
  ovl.format = OVERLAY_FORMAT_PALETTE_4BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(std::tuple(rec.palette_bank, rec.palette_colors[0]), std::tuple(1U, 0xAAU));
  ovl.format = OVERLAY_FORMAT_1BIT;
  o_set_standard_palette(&rec, &ovl);
  EXPECT_EQ(std::tuple(rec.palette_colors[0], rec.palette_colors[3]), std::tuple(0x11U, 0x44U));
}

TEST(Position, Calculation) {
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  constexpr uint32_t kNorm = OVERLAY_COORDS_NORMALIZED;
  struct Case {
    const char* name;
    overlay_position pos;
    uint32_t content_width;
    int result;
    uint32_t x = 0, y = 0, visible_width = 0, visible_height = 0;
  };
  const Case cases[] = {
      {"origin_pixels", {0, 0, 1, 1, 0}, 640, 0, 0, 0, 640, 400},
      {"origin_normalized", {0, 0, 1, 1, kNorm}, 640, 0, 0, 0, 640, 400},
      {"normalized_one", {1, 0.5F, 1, 1, kNorm}, 640, 0, 16384, 8192, 640, 400},
      {"normalized_above_one", {1.0001F, 0, 1, 1, kNorm}, 640, -2},
      {"pixel_fraction_truncates", {1.5F, 2.9F, 1, 1, 0}, 640, 0, 1, 2, 640, 400},
      {"pixels_above_one", {700, 500, 1, 1, 3}, 640, 0, 700, 500, 640, 400},
      {"negative_x", {-0.5F, 0, 1, 1, 0}, 640, -2},
      {"negative_y", {0, -1, 1, 1, kNorm}, 640, -2},
      {"visible_zero", {0, 0, 0, 0, 0}, 640, 0, 0, 0, 0, 0},
      {"visible_above_one", {0, 0, 1.01F, 1, 0}, 640, -2},
      {"visible_height_negative", {0, 0, 1, -0.1F, 0}, 640, -2},
      {"content_clipped_to_overlay", {0, 0, 0.5F, 0.5F, 0}, 700, 0, 0, 0, 320, 200},
      {"nan_refused", {kNaN, 0, 1, 1, 0}, 640, -2},
      {"huge_pixels_saturate", {1e12F, 0, 1, 1, 0}, 640, 0, 0xFFFFFFFFU, 0, 640, 400}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    internal_overlay rec{};
    rec.width = 640;
    rec.height = 480;
    rec.x = rec.coord_type = 0xDEAD;  // a refused position writes nothing
    clear_captured_logs();
    EXPECT_EQ(o_calculate_overlay_position(&rec, &c.pos, c.content_width, 400), c.result);
    EXPECT_TRUE(captured_logs().empty());
    EXPECT_EQ(std::tuple(rec.x, rec.y, rec.visible_width, rec.visible_height, rec.coord_type),
              c.result != 0
                  ? std::tuple(0xDEADU, 0U, 0U, 0U, 0xDEADU)
                  : std::tuple(c.x, c.y, c.visible_width, c.visible_height, c.pos.coord_type));
  }
}

// A reset driver, the device open, no messages yet.
class PaletteTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GE(fd_ = o_open_fd(), 0);
    clear_captured_logs();
  }
  void TearDown() override { o_close_fd(fd_); }
  int fd_ = -1;
};

struct Ycbcr {
  int index;
  uint8_t y, cb, cr, alpha;
};

TEST_F(PaletteTest, DefaultColoursConvert) {
  const Ycbcr expected[] = {{0, 255, 129, 128, 255},  {1, 0, 128, 128, 255},
                            {2, 76, 85, 255, 255},    {3, 73, 129, 128, 255},
                            {4, 0, 128, 128, 73},     {10, 54, 97, 219, 182},
                            {13, 204, 116, 165, 255}, {14, 127, 98, 219, 255}};
  for (const Ycbcr& e : expected) {
    cam_palette_color record{};
    zantrel::device::palette_argb_to_ycbcr(&record, static_palette[e.index]);
    EXPECT_EQ(std::vector<int>({record.luma, record.cb, record.cr, record.alpha}),
              std::vector<int>({e.y, e.cb, e.cr, e.alpha}))
        << "index " << e.index;
  }
}

TEST_F(PaletteTest, SetDefaultLoadsFifteenEntriesIntoBothBanks) {
  EXPECT_EQ(palette_set_default(fd_), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 30);
  for (unsigned bank = 0; bank < 2; ++bank) {
    cam_palette_color entries[16];
    uint8_t written[16];
    ASSERT_EQ(camsim_read_palette(bank, entries, written), 0);
    for (int index = 0; index < 16; ++index) {
      EXPECT_EQ(written[index], index < 15) << "entry 15 is the driver's own";
      cam_palette_color want{};
      zantrel::device::palette_argb_to_ycbcr(&want, static_palette[index]);
      want.index = static_cast<uint8_t>(index);
      want.bank = static_cast<uint8_t>(bank);  // flag 0
      EXPECT_TRUE(index == 15 || std::memcmp(&entries[index], &want, sizeof want) == 0) << index;
    }
  }
  EXPECT_TRUE(captured_logs().empty());

  ASSERT_EQ(camsim_inject_fault(CAMSIM_SET_PALETTE_COLOR, 30, EIO), 0);
  EXPECT_EQ(palette_set_default(fd_), -1);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 60) << "a refusal does not stop the load";
  EXPECT_TRUE(captured_logs().empty());
}

TEST_F(PaletteTest, SetColorSendsOneUserBankRecordOrRefuses) {
  EXPECT_EQ(palette_set_color_argb(fd_, 0xFFFF0000, 3, 0x101), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 1);
  cam_palette_color user[16];
  ASSERT_EQ(camsim_read_palette(1, user, nullptr), 0);
  const cam_palette_color want{3, 1, 76, 85, 255, 255, {0, 0}, 1};  // the low byte of the flag
  EXPECT_EQ(std::memcmp(&user[3], &want, sizeof want), 0);

  for (int index : {16, -1, 1000}) {
    EXPECT_EQ(palette_set_color_argb(fd_, 0, index, 0), -1);
    EXPECT_TRUE(
        logged_once(LOG_ERR, "libzantrel: Invalid index when setting palette, must be < 16. Was " +
                                 std::to_string(index) + ".\n"));
  }
  EXPECT_EQ(camsim_call_count(CAMSIM_SET_PALETTE_COLOR), 1);
  ASSERT_EQ(camsim_inject_fault(CAMSIM_SET_PALETTE_COLOR, 1, EINVAL), 0);
  EXPECT_EQ(palette_set_color_argb(fd_, 0, 15, 0), -1);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Could not set palette color at index 15, bank 1.\n"));
}

TEST_F(PaletteTest, ColourLookups) {
  const int expected_index[] = {1, 0, 2, 5, 4, 3};
  for (overlay_color color = 0; color < 6; ++color) {
    EXPECT_EQ(palette_get_color_index(color), expected_index[color]);
  }
  EXPECT_EQ(static_cast<uint32_t>(palette_get_color(palette_get_color_index(OVERLAY_COLOR_RED))),
            0xFFFF0000U);
  EXPECT_TRUE(captured_logs().empty());

  // An invalid colour gives -1, which palette_get_color refuses in turn.
  EXPECT_EQ(palette_get_color(palette_get_color_index(7)), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid overlay color\n"));
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Not a valid index\n"));
  EXPECT_EQ(palette_get_color_index(static_cast<overlay_color>(-1)), -1);
  EXPECT_EQ(palette_get_color(16), -1);
}

using Bytes = std::vector<uint8_t>;
using Pixels = std::vector<uint32_t>;                   // ARGB words, not premultiplied
using Patch = std::vector<std::pair<size_t, uint8_t>>;  // (offset, byte)

// Scratch files live in the test process's private /dev/shm, made on first
// use (after the test support mounted it); not "ovl_*", which the library's
// initialisation removes.
const std::string& dir() {
  static const std::string path = [] {
    char name[] = "/dev/shm/image-test.XXXXXX";
    return std::string(mkdtemp(name));
  }();
  return path;
}
std::string ovl_path() { return dir() + "/image.ovl"; }

Bytes read_file(const std::string& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}
void write_file(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary) << std::string(bytes.begin(), bytes.end());
}
// `file` with the patch's bytes set, grown to hold them.
Bytes patched(Bytes file, const Patch& patch) {
  for (auto [at, value] : patch) {
    file.resize(std::max(file.size(), at + 1));
    file[at] = value;
  }
  return file;
}

uint32_t& pixel(cairo_surface_t* s, int i) {
  int w = cairo_image_surface_get_width(s);
  unsigned char* row = cairo_image_surface_get_data(s) + i / w * cairo_image_surface_get_stride(s);
  return reinterpret_cast<uint32_t*>(row)[i % w];
}
void write_png(const std::string& path, int w, int h, const Pixels& argb) {
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
  for (int i = 0; i < w * h; ++i) {
    uint32_t p = argb[i], a = p >> 24, out = a << 24;
    for (int shift : {16, 8, 0}) out |= (((p >> shift) & 0xFF) * a + 127) / 255 << shift;
    pixel(s, i) = out;
  }
  cairo_surface_mark_dirty(s);
  ASSERT_EQ(cairo_surface_write_to_png(s, path.c_str()), CAIRO_STATUS_SUCCESS);
  cairo_surface_destroy(s);
}
// Premultiplied, which is the plain colour for alpha 0 and 255.
Pixels read_png(const std::string& path) {
  cairo_surface_t* s = cairo_image_surface_create_from_png(path.c_str());
  Pixels out(cairo_image_surface_get_width(s) * cairo_image_surface_get_height(s));
  for (size_t i = 0; i < out.size(); ++i) out[i] = pixel(s, int(i));
  cairo_surface_destroy(s);
  return out;
}

// Exit status of ovlconv; its stderr goes to *err.
int ovlconv(const std::vector<std::string>& args, std::string* err = nullptr) {
  std::string command = OVLCONV;
  for (const auto& arg : args) command += " '" + arg + "'";
  int status = std::system((command + " 2>" + dir() + "/ovlconv.err").c_str());
  const Bytes text = read_file(dir() + "/ovlconv.err");
  if (err != nullptr) err->assign(text.begin(), text.end());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
// A w x h image through ovlconv: version '4', or '2' with key 16.
Bytes make_ovl(int w, int h, const Pixels& argb, bool packed = false) {
  write_png(dir() + "/source.png", w, h, argb);
  std::vector<std::string> args = {"to-ovl", dir() + "/source.png", ovl_path()};
  if (packed) args.insert(args.begin() + 1, "--packed");
  EXPECT_EQ(ovlconv(args), 0);
  return read_file(ovl_path());
}
// Colours, one fully transparent, and a grey whose luma is the key 16.
Pixels pattern(int w, int h) {
  const uint32_t colours[] = {0xFFFF0000, 0xFF00FF00, 0x00000000, 0xFF0000FF,
                              0xFFFFFFFF, 0xFF101010, 0xFF808000};
  Pixels p;
  for (int i = 0; i < w * h; ++i) p.push_back(colours[(i * 3 + i / w) % 7]);
  return p;
}

class OvlFile : public PaletteTest {
 protected:
  // Writes `file` (none when empty) and loads it.
  int load(const Bytes& file) {
    unlink(ovl_path().c_str());
    if (!file.empty()) write_file(ovl_path(), file);
    return open_image(ovl_path());
  }
  // Loads `path`, converted first for a 960 x 540 stream when scaled; the
  // shown buffer lands in shown_.
  int open_image(const std::string& path, bool scaled = false) {
    image_ = {};
    image_.overlay.position = {0, 0, 1, 1, 0};
    std::strcpy(image_.path, path.c_str());
    data_ = {};
    int rc = scaled ? o_create_scaled_image_overlay_from_ovl_file(&image_, fd_, &id_, 1, 960, 540,
                                                                  &data_)
                    : o_create_image_overlay_from_ovl_file(&image_, fd_, &id_, &data_);
    shown_.assign(image_.overlay.buffer_size, 0xEE);
    if (rc == 0) camsim_read_shown_buffer(id_, shown_.data(), shown_.size());
    return rc;
  }
  // The records of a w x h image: one buffer rounded up to even sizes, and
  // the content size.
  void expect_record(uint32_t w, uint32_t h) {
    const overlay& o = image_.overlay;
    EXPECT_EQ(std::tuple(o.width, o.height, o.format, o.nbr_buffers, data_.width, data_.height),
              std::tuple((w + 1) & ~1U, (h + 1) & ~1U, OVERLAY_FORMAT_YCBCR_ALPHA, 1U, w, h));
  }
  // Plane bytes: luma, chroma A, chroma B, alpha; chroma (x, y) is the pair's
  // byte of image row y.
  uint8_t plane(int p, size_t x, size_t y) const {
    size_t w = image_.overlay.width, n = w * image_.overlay.height;
    size_t base[] = {0, n, n + n / 2, 2 * n};
    return shown_.at(base[p] + (p == 1 || p == 2 ? y / 2 : y) * w + x);
  }

  int id_ = 0;
  overlay_image image_{};
  overlay_entry_data data_{};
  Bytes shown_;
};

// ovlconv makes version '2' files of format 2 with key 16; the rest by hand.
// Whether pixels of luma 16 turn transparent depends on the key.
TEST_F(OvlFile, PackedPlanesHoldTheFile) {
  const std::tuple<const char*, int, int, Patch, bool> cases[] = {
      {"v2_alpha", 6, 4, {}, true},
      {"v2_full", 4, 2, {{4, 1}}, true},
      {"v2_odd_9x3", 9, 3, {}, true},
      {"v2_key_pair_16_17", 2, 2, {{79, 16}, {81, 17}}, true},
      {"v1_key_in_byte_11", 4, 4, {{2, '1'}, {10, 0}, {11, 16}}, true},
      {"v1_byte_10_set", 4, 4, {{2, '1'}, {10, 1}, {11, 16}}, false},
      {"v3_like_v2", 4, 2, {{2, '3'}, {11, 0}}, true},
      {"unknown_version", 4, 2, {{2, 'x'}}, true}};
  for (const auto& [name, w, h, patch, key_active] : cases) {
    SCOPED_TRACE(name);
    ASSERT_EQ(camsim_reset(), 0);
    clear_captured_logs();
    const Bytes file = patched(make_ovl(w, h, pattern(w, h), true), patch);
    ASSERT_EQ(load(file), 0);
    EXPECT_EQ(camsim_live_count(), 1);
    expect_record(w, h);
    for (int y = 0; y < ((h + 1) & ~1); ++y) {
      const uint8_t* row = &file[78 + std::min(y, h - 1) * w * 2];
      for (int x = 0; x < ((w + 1) & ~1); ++x) {
        SCOPED_TRACE(testing::Message() << x << "," << y);
        if (x == w || y == h) {  // the added column and row: transparent, luma repeated
          EXPECT_EQ(plane(3, x, y), 0);
          EXPECT_EQ(plane(0, x, y), row[std::min(x, w - 1) * 2 + 1]);
          continue;
        }
        uint8_t luma = row[x * 2 + 1];
        EXPECT_EQ(plane(0, x, y), luma);
        EXPECT_EQ(plane(3, x, y), key_active && luma == 16 ? 0 : 255);
        bool odd = x % 2, lone = !odd && x + 1 == w;
        uint8_t cr = row[(x - odd) * 2], cb = lone ? 128 : row[(x - odd) * 2 + 2];
        if (y % 2 == 0) {
          EXPECT_EQ(std::pair(plane(1, x, y), plane(2, x, y)),
                    odd ? std::pair(cb, cr) : std::pair(cr, cb));
        }
      }
    }
    EXPECT_TRUE(captured_logs().empty());
  }
}

TEST_F(OvlFile, ArgbFilesAreConvertedPairByPair) {
  // Red, green, white, black over black, black, half-transparent white, blue.
  Bytes file = make_ovl(4, 2,
                        {0xFFFF0000, 0xFF00FF00, 0xFFFFFFFF, 0xFF000000,  //
                         0xFF000000, 0xFF000000, 0x80FFFFFF, 0xFF0000FF});
  file.insert(file.end(), 10, 0x55);  // data after the pixels is ignored
  ASSERT_EQ(load(file), 0);
  const uint8_t luma[] = {76, 149, 255, 0, 0, 0, 255, 29};
  const uint8_t alpha[] = {255, 255, 255, 255, 255, 255, 0x80, 255};
  // (Cr, Cb) of the pairs: row 0 (138, 64) and (128, 128), the halves of
  // negative sums truncated; row 1 (128, 128) and (118, 191); then averaged.
  const uint8_t a[] = {133, 96, 123, 159}, b[] = {96, 133, 159, 123};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(plane(0, i % 4, i / 4), luma[i]) << i;
    EXPECT_EQ(plane(3, i % 4, i / 4), alpha[i]) << i;
    EXPECT_EQ(plane(i / 4 + 1, i % 4, 0), i < 4 ? a[i] : b[i - 4]) << i;
  }

  // An odd size: the added column and row repeat the last pixel, transparent.
  ASSERT_EQ(load(make_ovl(3, 3, Pixels(9, 0xFFFF0000))), 0);
  expect_record(3, 3);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) EXPECT_EQ(plane(3, x, y), x < 3 && y < 3 ? 255 : 0) << x << y;
    EXPECT_EQ(plane(0, 3, y), 76) << y;
  }
  EXPECT_EQ(plane(1, 2, 0), 255);  // the lone pixel's own chroma, red
  EXPECT_EQ(plane(1, 3, 0), 84);
}

struct BadCase {
  const char* name;
  bool packed;  // a 5 x 3 image: 108 bytes packed, 138 ARGB
  Patch patch;
  size_t size;                            // the file cut or grown to this
  std::vector<std::string> messages;      // "%s" stands for the path
  std::optional<camsim_command> fault{};  // the driver refuses it once
};
class BadFiles : public OvlFile, public testing::WithParamInterface<BadCase> {};

TEST_P(BadFiles, AreRefusedWithTheirMessagesAndLeaveNoOverlay) {
  const BadCase& c = GetParam();
  Bytes file = patched(make_ovl(5, 3, pattern(5, 3), c.packed), c.patch);
  file.resize(c.size);
  ASSERT_EQ(camsim_inject_fault(c.fault.value_or(CAMSIM_CREATE_OVERLAY), c.fault ? 1 : 0, EIO), 0);
  EXPECT_EQ(load(file), -1);
  // Every overlay made is destroyed again, and nothing was shown.
  EXPECT_EQ(camsim_live_count(), 0);
  const long made = camsim_call_count(CAMSIM_CREATE_OVERLAY);
  EXPECT_EQ(camsim_call_count(CAMSIM_DESTROY_OVERLAY), made - (c.fault == CAMSIM_CREATE_OVERLAY));
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), 0);
  if (made > 0) expect_record(5, 3);
  std::vector<std::string> want, logged;
  for (std::string m : c.messages) {
    if (size_t at = m.find("%s"); at != std::string::npos) m.replace(at, 2, ovl_path());
    want.push_back("libzantrel: " + m + "\n");
  }
  for (const auto& r : captured_logs()) logged.push_back(r.priority == LOG_ERR ? r.message : "");
  EXPECT_EQ(logged, want);
}

const char* const kFaulty = "Overlay file is invalid, header is faulty";
const char* const kNoHeader = "Overlay file is invalid, could not get header. File path: %s";
const char* const kSize = "Ovl file %s have faulty size, might be corrupt";
const char* const kNoData = "Failed to read data from overlay file.";
const char* const kNoArgb = "Failed to read OVERLAY_ARGB32, file path %s";
const char* const kPalette = "Trying to load an unsupported palette overlay.";
const char* const kUnknown = "Unkown overlay file format.";
const char* const kNoFile = "Failed to open overlay file. File path: %s";
const char* const kAdding = "Internal error when adding overlay: Input/output error";
const char* const kNoHw = "Could not allocate image overlay in HW";
const char* const kNoBuffer = "Failed to access internal overlay kernel data";
const char* const kSubmit = "Internal error when submitting overlay buffer: Input/output error";
INSTANTIATE_TEST_SUITE_P(
    Corrupt, BadFiles,
    testing::ValuesIn(std::vector<BadCase>{
        {"bad_magic", true, {{1, 'h'}}, 108, {kFaulty}},
        {"byte_5_not_16", false, {{5, 17}}, 138, {kFaulty}},
        {"short_header", true, {}, 77, {kNoHeader}},
        {"one_byte_more", true, {}, 109, {kSize}},
        {"one_byte_less", true, {}, 107, {kSize}},
        {"short_argb", false, {}, 137, {kNoData, kNoArgb}},
        {"palette", true, {{4, 0}}, 108, {kPalette, kUnknown}},
        {"format_3", true, {{4, 3}}, 108, {kUnknown}},
        {"missing", true, {}, 0, {kNoFile}},
        {"create_fails", true, {}, 108, {kAdding, kNoHw}, CAMSIM_CREATE_OVERLAY},
        {"get_buffer_fails", true, {}, 108, {kNoBuffer}, CAMSIM_GET_BUFFER}}),
    [](const auto& info) { return std::string(info.param.name); });

// An image that never reached the screen is a failed load, and leaves nothing.
TEST_F(OvlFile, RefusedSubmissionFailsTheLoad) {
  ASSERT_EQ(camsim_inject_fault(CAMSIM_SUBMIT_BUFFER, 1, EIO), 0);
  EXPECT_EQ(load(make_ovl(4, 2, pattern(4, 2))), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, std::string("libzantrel: ") + kSubmit + "\n"));
  EXPECT_EQ(camsim_live_count(), 0);
}

TEST_F(OvlFile, ScaledImageLoadsTheConvertedFile) {
  // A conversion that fails touches no driver.
  EXPECT_EQ(open_image(dir() + "/no-such-image", true), -1);
  EXPECT_EQ(camsim_total_calls(), 0);
  EXPECT_TRUE(captured_logs().empty());

  // A 24-bit bitmap of 4 x 2 red pixels, halved; the converted file goes
  // under TMPDIR.
  Bytes bmp =
      patched(Bytes(54 + 2 * 12, 0),
              {{0, 'B'}, {1, 'M'}, {10, 54}, {14, 40}, {18, 4}, {22, 2}, {26, 1}, {28, 24}});
  for (size_t i = 54; i < bmp.size(); i += 3) bmp[i + 2] = 0xFF;
  mkdir((dir() + "/scalable").c_str(), 0700);
  write_file(dir() + "/scalable/bmp", bmp);
  setenv("TMPDIR", dir().c_str(), 1);
  for (bool fault : {true, false}) {
    camsim_inject_fault(CAMSIM_CREATE_OVERLAY, fault ? 1 : 0, ENOMEM);
    clear_captured_logs();
    EXPECT_EQ(open_image(dir() + "/scalable", true), fault ? -1 : 0);
    EXPECT_EQ(logged_once(LOG_ERR, "libzantrel: Failed to create scalable image overlay\n"), fault);
    EXPECT_EQ(camsim_live_count(), fault ? 0 : 1);
    EXPECT_NE(std::string(image_.path), dir() + "/scalable") << "names the converted file";
    expect_record(2, 1);
  }
}

// The loaders' key and header handling are seen in the planes above; here
// what the helpers answer for a version the loaders treat as unknown.
TEST(OvlHeader, HelpersReadTheirBytes) {
  uint8_t h[78] = {'o', 'g', '3', 0, 1, 16, 0, 0, 0, 0, 7, 9};
  EXPECT_EQ(std::tuple(ovl_valid_header(h), ovl_header_version(h), ovl_get_alpha(h)),
            std::tuple(1, uint8_t{255}, 0x700U));
}

TEST(Ovlconv, RoundTripKeepsPixelsAndNudgesKeyLuma) {
  // Greys survive the packed form exactly; grey 16 is the key and moves to 17.
  Pixels source = {0xFF000000, 0x00000000, 0xFF101010, 0xFFFFFFFF, 0xFF7F7F7F, 0xFF123456};
  write_png(dir() + "/rt.png", 3, 2, source);
  for (bool packed : {false, true}) {
    std::vector<std::string> args = {"to-ovl", dir() + "/rt.png", dir() + "/rt.ovl"};
    if (packed) args.insert(args.begin() + 1, {"--packed", "--key", "16"});
    ASSERT_EQ(ovlconv(args), 0);
    Bytes ovl = read_file(dir() + "/rt.ovl");
    EXPECT_EQ(ovl.size(), 78U + 6 * (packed ? 2 : 4));
    EXPECT_EQ(Bytes(ovl.begin(), ovl.begin() + 11),
              (Bytes{'o', 'g', uint8_t(packed ? '2' : '4'), 0, uint8_t(packed ? 2 : 0), 16, 3, 0, 2,
                     0, uint8_t(packed ? 16 : 0)}));
    ASSERT_EQ(ovlconv({"to-png", dir() + "/rt.ovl", dir() + "/rt2.png"}), 0);
    Pixels back = read_png(dir() + "/rt2.png");
    // The lone last pixel of a packed row keeps only one chroma value.
    for (size_t i = 0; i < (packed ? 5 : 6); ++i) {
      EXPECT_EQ(back[i], packed && i == 2 ? 0xFF111111 : source[i]) << i;
    }
  }
}

TEST(Ovlconv, BadInputFailsWithOneLineAndNoOutput) {
  const std::string in = dir() + "/errors";
  mkdir(in.c_str(), 0700);
  write_file(in + "/text.png", {'h', 'i', '\n'});
  // A PNG signature and IHDR of 70000 x 1: too wide for an .ovl image.
  write_file(in + "/wide.png", {0x89, 'P', 'N', 'G', 13, 10, 26,   10,   0, 0, 0, 13,  //
                                'I',  'H', 'D', 'R', 0,  1,  0x11, 0x70, 0, 0, 0, 1});
  write_file(in + "/short.ovl", {'o', 'g', '4'});
  // A packed 2 x 1 file, 4 bytes of pixels, made wrong.
  const Bytes packed =
      patched(Bytes(78 + 4, 0), {{0, 'o'}, {1, 'g'}, {2, '2'}, {4, 2}, {5, 16}, {6, 2}, {8, 1}});
  write_file(in + "/bigger.ovl", patched(packed, {{82, 0}}));
  write_file(in + "/palette.ovl", patched(packed, {{4, 0}}));
  write_file(in + "/magic.ovl", patched(packed, {{0, 'O'}}));
  write_file(in + "/argb.ovl", patched(packed, {{2, '4'}}));  // 8 bytes of pixels needed
  const auto before = std::distance(std::filesystem::directory_iterator(in), {});
  for (const std::string name : {"missing.png", "text.png", "wide.png", "short.ovl", "bigger.ovl",
                                 "palette.ovl", "magic.ovl", "argb.ovl", "missing.ovl"}) {
    std::string err, verb = name.ends_with(".png") ? "to-ovl" : "to-png";
    EXPECT_EQ(ovlconv({verb, in + "/" + name, in + "/out"}, &err), 1) << name;
    EXPECT_TRUE(err.starts_with("ovlconv: ") && std::count(err.begin(), err.end(), '\n') == 1)
        << err;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(in), {}), before) << name;
  }
}

}  // namespace
