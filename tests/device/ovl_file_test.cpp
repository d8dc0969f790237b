// ".ovl" files made by ovlconv from PNGs: what their planes hold, the files
// and driver refusals the loader turns away, and the header helpers.
#include <gtest/gtest.h>
#include <syslog.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "camsim.h"
#include "device.h"
#include "test_support.h"
#include "zantrel.h"

#include "device_test_util.h"

namespace {

using namespace device_test;  // NOLINT(google-build-using-namespace)
using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

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
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), c.fault == CAMSIM_SUBMIT_BUFFER ? 1 : 0);
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
        {"get_buffer_fails", true, {}, 108, {kNoBuffer}, CAMSIM_GET_BUFFER},
        // An image that never reached the screen is a failed load.
        {"submit_fails", true, {}, 108, {kSubmit}, CAMSIM_SUBMIT_BUFFER}}),
    [](const auto& info) { return std::string(info.param.name); });

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

// What the header helpers answer for each version byte: version 1 keeps its
// key in bytes 10 and 11, the others in byte 10.
TEST(OvlHeader, HelpersReadTheirBytes) {
  const struct {
    const char* name;
    uint8_t magic, version_byte;
    int valid;
    uint8_t version;
    uint32_t alpha;
  } cases[] = {
      {"v1", 'o', '1', 1, '1', 0x07000900},    {"v2", 'o', '2', 1, '2', 0x700},
      {"v3_unknown", 'o', '3', 1, 255, 0x700}, {"v4_argb", 'o', '4', 1, '4', 0x700},
      {"bad_magic", 'O', '2', 0, '2', 0x700},
  };
  for (const auto& c : cases) {
    uint8_t h[78] = {c.magic, 'g', c.version_byte, 0, 1, 16, 0, 0, 0, 0, 7, 9};
    EXPECT_EQ(std::tuple(ovl_valid_header(h), ovl_header_version(h), ovl_get_alpha(h)),
              std::tuple(c.valid, c.version, c.alpha))
        << c.name;
  }
  EXPECT_EQ(std::tuple(ovl_header_version(nullptr), ovl_get_alpha(nullptr)),
            std::tuple(uint8_t{255}, 0U));
}

}  // namespace
