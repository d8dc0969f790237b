// ".ovl" files made by ovlconv from PNGs, loaded into the simulated driver:
// what the planes hold, the files and driver refusals the loader turns away,
// and ovlconv's round trip and errors.
#include <cairo.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "camsim.h"
#include "test_support.h"
#include "zantrel.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;
using Bytes = std::vector<uint8_t>;
using Pixels = std::vector<uint32_t>;  // ARGB words, not premultiplied

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
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void write_file(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}
size_t files_in(const std::string& dir) {
  return std::distance(std::filesystem::directory_iterator(dir), {});
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
  Bytes text = read_file(dir() + "/ovlconv.err");
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

class OvlFile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    fd_ = o_open_fd();
    ASSERT_GE(fd_, 0);
    clear_captured_logs();
  }
  void TearDown() override { o_close_fd(fd_); }

  // Writes `file` (none when empty) and loads it; the shown buffer lands in
  // shown_.
  int load(const Bytes& file) {
    unlink(ovl_path().c_str());
    if (!file.empty()) {
      write_file(ovl_path(), file);
    }
    image_ = {};
    image_.overlay.position = {0, 0, 1, 1, 0};
    std::strcpy(image_.path, ovl_path().c_str());
    data_ = {};
    id_ = 0;
    int rc = o_create_image_overlay_from_ovl_file(&image_, fd_, &id_, &data_);
    shown_.assign(image_.overlay.buffer_size, 0xEE);
    if (rc == 0) {
      EXPECT_EQ(camsim_read_shown_buffer(id_, shown_.data(), shown_.size()), long(shown_.size()));
    }
    return rc;
  }
  // Plane bytes: luma, chroma A, chroma B, alpha; chroma (x, y) is the pair's
  // byte of image row y.
  uint8_t plane(int p, size_t x, size_t y) const {
    size_t w = image_.overlay.width, n = w * image_.overlay.height;
    size_t base[] = {0, n, n + n / 2, 2 * n};
    return shown_.at(base[p] + (p == 1 || p == 2 ? y / 2 : y) * w + x);
  }

  int fd_ = -1;
  int id_ = 0;
  overlay_image image_{};
  overlay_entry_data data_{};
  Bytes shown_;
};

using Patch = std::vector<std::pair<size_t, uint8_t>>;  // (offset, byte)
void apply(Bytes& file, const Patch& patch) {
  for (auto [at, value] : patch) file.at(at) = value;
}

struct PackedCase {
  const char* name;
  int w, h;
  Patch patch;
  bool key_active;  // whether pixels of luma 16 turn transparent
};
void PrintTo(const PackedCase& c, std::ostream* os) { *os << c.name; }
class PackedFiles : public OvlFile, public testing::WithParamInterface<PackedCase> {};

TEST_P(PackedFiles, PlanesHoldTheFile) {
  const PackedCase& c = GetParam();
  Bytes file = make_ovl(c.w, c.h, pattern(c.w, c.h), true);
  apply(file, c.patch);
  ASSERT_EQ(load(file), 0);
  EXPECT_EQ(camsim_live_count(), 1);
  const size_t W = (c.w + 1) & ~1, H = (c.h + 1) & ~1;
  ASSERT_EQ(image_.overlay.width, W);
  ASSERT_EQ(image_.overlay.height, H);
  EXPECT_EQ(image_.overlay.format, OVERLAY_FORMAT_YCBCR_ALPHA);
  EXPECT_EQ(data_.width, uint32_t(c.w));
  EXPECT_EQ(data_.height, uint32_t(c.h));
  for (int y = 0; y < c.h; ++y) {
    const uint8_t* row = &file[78 + y * c.w * 2];
    for (int x = 0; x < c.w; ++x) {
      uint8_t luma = row[x * 2 + 1];
      EXPECT_EQ(plane(0, x, y), luma) << x << "," << y;
      EXPECT_EQ(plane(3, x, y), c.key_active && luma == 16 ? 0 : 255) << x << "," << y;
      bool odd = x % 2, lone = !odd && x + 1 == c.w;
      uint8_t cr = row[(x - odd) * 2], cb = lone ? 128 : row[(x - odd) * 2 + 2];
      if (y % 2 == 0) {
        EXPECT_EQ(plane(1, x, y), odd ? cb : cr) << x << "," << y;
        EXPECT_EQ(plane(2, x, y), odd ? cr : cb) << x << "," << y;
      }
    }
    if (W > size_t(c.w)) {  // the added column: transparent, same luma
      EXPECT_EQ(plane(3, W - 1, y), 0);
      EXPECT_EQ(plane(0, W - 1, y), row[c.w * 2 - 1]);
    }
  }
  for (size_t x = 0; x < W && H > size_t(c.h); ++x) EXPECT_EQ(plane(3, x, H - 1), 0);
  EXPECT_TRUE(captured_logs().empty());
}

// ovlconv makes version '2' files of format 2 with key 16; the rest by hand.
INSTANTIATE_TEST_SUITE_P(
    Versions, PackedFiles,
    testing::Values(PackedCase{"v2_alpha", 6, 4, {}, true},  //
                    PackedCase{"v2_full", 4, 2, {{4, 1}}, true},
                    PackedCase{"v2_odd_9x3", 9, 3, {}, true},
                    PackedCase{"v2_key_pair_16_17", 2, 2, {{79, 16}, {81, 17}}, true},
                    PackedCase{"v1_key_in_byte_11", 4, 4, {{2, '1'}, {10, 0}, {11, 16}}, true},
                    PackedCase{"v1_byte_10_set", 4, 4, {{2, '1'}, {10, 1}, {11, 16}}, false},
                    PackedCase{"v3_like_v2", 4, 2, {{2, '3'}, {11, 0}}, true},
                    PackedCase{"unknown_version", 4, 2, {{2, 'x'}}, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(OvlFile, ArgbFileIsConvertedPairByPair) {
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
}

TEST_F(OvlFile, OddArgbImageGetsTransparentAddedColumnAndRow) {
  Bytes file = make_ovl(3, 3, Pixels(9, 0xFFFF0000));
  ASSERT_EQ(load(file), 0);
  ASSERT_EQ(image_.overlay.width, 4U);
  EXPECT_EQ(data_.width, 3U);
  EXPECT_EQ(data_.height, 3U);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      EXPECT_EQ(plane(3, x, y), x < 3 && y < 3 ? 255 : 0) << x << "," << y;
    }
    EXPECT_EQ(plane(0, 3, y), y < 3 ? 76 : 0) << "column 3 repeats the last pixel";
  }
  EXPECT_EQ(plane(1, 2, 0), 255);  // the lone pixel's own chroma, red
  EXPECT_EQ(plane(1, 3, 0), 84);
}

struct BadCase {
  const char* name;
  bool packed;  // a 4 x 2 image: 94 bytes packed, 110 ARGB
  Patch patch;
  size_t size;                        // the file cut or grown to this
  std::vector<std::string> messages;  // "%s" stands for the path
};
void PrintTo(const BadCase& c, std::ostream* os) { *os << c.name; }
class BadFiles : public OvlFile, public testing::WithParamInterface<BadCase> {};

TEST_P(BadFiles, AreRefusedWithTheirMessagesAndLeaveNoOverlay) {
  const BadCase& c = GetParam();
  Bytes file = make_ovl(4, 2, pattern(4, 2), c.packed);
  apply(file, c.patch);
  file.resize(c.size);
  EXPECT_EQ(load(file), -1);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER), 0);
  ASSERT_EQ(captured_logs().size(), c.messages.size());
  for (size_t i = 0; i < c.messages.size(); ++i) {
    std::string m = c.messages[i];
    if (size_t at = m.find("%s"); at != std::string::npos) m.replace(at, 2, ovl_path());
    EXPECT_EQ(captured_logs()[i].priority, LOG_ERR);
    EXPECT_EQ(captured_logs()[i].message, "libzantrel: " + m + "\n");
  }
}

const char* const kFaulty = "Overlay file is invalid, header is faulty";
const char* const kNoHeader = "Overlay file is invalid, could not get header. File path: %s";
const char* const kSize = "Ovl file %s have faulty size, might be corrupt";
const char* const kNoData = "Failed to read data from overlay file.";
const char* const kNoArgb = "Failed to read OVERLAY_ARGB32, file path %s";
const char* const kPalette = "Trying to load an unsupported palette overlay.";
const char* const kUnknown = "Unkown overlay file format.";
const char* const kNoFile = "Failed to open overlay file. File path: %s";
INSTANTIATE_TEST_SUITE_P(Corrupt, BadFiles,
                         testing::Values(BadCase{"bad_magic", true, {{1, 'h'}}, 94, {kFaulty}},
                                         BadCase{"byte_5_not_16", false, {{5, 17}}, 110, {kFaulty}},
                                         BadCase{"short_header", true, {}, 77, {kNoHeader}},
                                         BadCase{"one_byte_more", true, {}, 95, {kSize}},
                                         BadCase{"one_byte_less", true, {}, 93, {kSize}},
                                         BadCase{"short_argb", false, {}, 109, {kNoData, kNoArgb}},
                                         BadCase{
                                             "palette", true, {{4, 0}}, 94, {kPalette, kUnknown}},
                                         BadCase{"format_3", true, {{4, 3}}, 94, {kUnknown}},
                                         BadCase{"missing", true, {}, 0, {kNoFile}}),
                         [](const auto& info) { return std::string(info.param.name); });

struct FaultCase {
  camsim_command command;
  const char* message;  // logged once, after "libzantrel: "
};
class DriverFaults : public OvlFile, public testing::WithParamInterface<FaultCase> {};

TEST_P(DriverFaults, DestroyTheOverlayAndKeepTheRoundedRecord) {
  Bytes file = make_ovl(5, 3, pattern(5, 3), true);
  ASSERT_EQ(camsim_inject_fault(GetParam().command, 1, EIO), 0);
  EXPECT_EQ(load(file), -1);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_DESTROY_OVERLAY),
            GetParam().command == CAMSIM_CREATE_OVERLAY ? 0 : 1);
  EXPECT_EQ(image_.overlay.width, 6U);
  EXPECT_EQ(image_.overlay.height, 4U);
  EXPECT_EQ(image_.overlay.format, OVERLAY_FORMAT_YCBCR_ALPHA);
  EXPECT_EQ(image_.overlay.nbr_buffers, 1U);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: " + std::string(GetParam().message) + "\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DriverFaults,
    testing::Values(FaultCase{CAMSIM_CREATE_OVERLAY, "Could not allocate image overlay in HW"},
                    FaultCase{CAMSIM_GET_BUFFER, "Failed to access internal overlay kernel data"},
                    FaultCase{
                        CAMSIM_SUBMIT_BUFFER,
                        "Internal error when submitting overlay buffer: Input/output error"}));

TEST_F(OvlFile, ScaledImageWhoseConversionFailsTouchesNoDriver) {
  overlay_image image{};
  std::strcpy(image.path, (dir() + "/no-such-image").c_str());
  overlay_entry_data data{};
  int id = 0;
  EXPECT_EQ(o_create_scaled_image_overlay_from_ovl_file(&image, fd_, &id, 0, 1920, 1080, &data),
            -1);
  EXPECT_EQ(camsim_total_calls(), 0);
  EXPECT_TRUE(captured_logs().empty());
}

TEST_F(OvlFile, ScaledImageLoadsTheConvertedFile) {
  // A 24-bit bitmap of 4 x 2 red pixels, halved for a 540-line stream; the
  // converted file goes under TMPDIR.
  Bytes bmp(54 + 2 * 12, 0);
  apply(bmp, {{0, 'B'}, {1, 'M'}, {10, 54}, {14, 40}, {18, 4}, {22, 2}, {26, 1}, {28, 24}});
  for (size_t i = 54; i < bmp.size(); i += 3) bmp[i + 2] = 0xFF;
  mkdir((dir() + "/scalable").c_str(), 0700);
  write_file(dir() + "/scalable/bmp", bmp);
  setenv("TMPDIR", dir().c_str(), 1);
  for (bool fault : {true, false}) {
    overlay_image image{};
    image.overlay.position = {0, 0, 1, 1, 0};
    std::strcpy(image.path, (dir() + "/scalable").c_str());
    overlay_entry_data data{};
    int id = 0;
    camsim_inject_fault(CAMSIM_CREATE_OVERLAY, fault ? 1 : 0, ENOMEM);
    clear_captured_logs();
    EXPECT_EQ(o_create_scaled_image_overlay_from_ovl_file(&image, fd_, &id, 1, 960, 540, &data),
              fault ? -1 : 0);
    EXPECT_EQ(logged_once(LOG_ERR, "libzantrel: Failed to create scalable image overlay\n"), fault);
    EXPECT_EQ(camsim_live_count(), fault ? 0 : 1);
    EXPECT_NE(std::string(image.path), dir() + "/scalable") << "names the converted file";
    EXPECT_EQ(data.width, 2U);
    EXPECT_EQ(data.height, 1U);
    EXPECT_EQ(image.overlay.height, 2U);
  }
}

TEST(OvlHeader, HelpersReadTheirBytes) {
  uint8_t h[78] = {'o', 'g', '2', 0, 1, 16, 0, 0, 0, 0, 7, 9};
  EXPECT_EQ(ovl_valid_header(h), 1);
  EXPECT_EQ(ovl_header_version(h), '2');
  EXPECT_EQ(ovl_get_alpha(h), 0x700U);
  h[2] = '1';
  EXPECT_EQ(ovl_get_alpha(h), 0x07000900U);
  h[2] = '3';
  EXPECT_EQ(ovl_header_version(h), 255);
  h[5] = 0;
  EXPECT_EQ(ovl_valid_header(h), 0);
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
  std::string in = dir() + "/errors";
  mkdir(in.c_str(), 0700);
  write_file(in + "/text.png", {'h', 'i', '\n'});
  // A PNG signature and IHDR of 70000 x 1: too wide for an .ovl image.
  write_file(in + "/wide.png", {0x89, 'P', 'N', 'G', 13, 10, 26,   10,   0, 0, 0, 13,  //
                                'I',  'H', 'D', 'R', 0,  1,  0x11, 0x70, 0, 0, 0, 1});
  write_file(in + "/short.ovl", {'o', 'g', '4'});
  Bytes packed = {'o', 'g', '2', 0, 2, 16, 2, 0, 1, 0};  // 2 x 1, 4 bytes of pixels
  packed.resize(78 + 4);
  auto variant = [&](const char* name, size_t at, uint8_t value) {
    Bytes b = packed;
    b.resize(std::max(b.size(), at + 1));
    b[at] = value;
    write_file(in + "/" + name, b);
  };
  variant("bigger.ovl", 82, 0);
  variant("palette.ovl", 4, 0);
  variant("magic.ovl", 0, 'O');
  variant("argb.ovl", 2, '4');  // 8 bytes of pixels needed
  const std::vector<std::vector<std::string>> cases = {
      {"to-ovl", "missing.png"}, {"to-ovl", "text.png"},   {"to-ovl", "wide.png"},
      {"to-png", "short.ovl"},   {"to-png", "bigger.ovl"}, {"to-png", "palette.ovl"},
      {"to-png", "magic.ovl"},   {"to-png", "argb.ovl"},   {"to-png", "missing.ovl"}};
  size_t before = files_in(in);
  for (const auto& c : cases) {
    std::string err;
    EXPECT_EQ(ovlconv({c[0], in + "/" + c[1], in + "/out"}, &err), 1) << c[1];
    EXPECT_EQ(err.rfind("ovlconv: ", 0), 0U) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(files_in(in), before) << c[1] << " left an output";
  }
}

}  // namespace
