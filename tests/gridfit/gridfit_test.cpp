// Bitmaps are written by the tests into a fresh directory per test, and
// TMPDIR points into that directory so the converted files land there too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "gridfit.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using Colours = std::array<std::uint32_t, 4>;

// Odd sizes: 24-bit rows need padding. Quadrants (top-left, top-right,
// bottom-left, bottom-right) in straight ARGB.
constexpr int kWidth = 101, kHeight = 61;
constexpr Colours kQuadrants{0xFFC81E32, 0xC81EB450, 0x803C3CDC, 0x00FAFAFA};

struct BmpForm {
  int bits = 24;
  bool top_down = false;
  std::uint32_t info_size = 40, compression = 0, alpha_mask = 0;
};
constexpr BmpForm kRgb24{};
constexpr BmpForm kV5Alpha{32, true, 124, 3, 0xFF000000};

void put32(Bytes& b, std::size_t pos, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[pos + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// Bitfield masks follow a 40-byte header and sit inside longer ones.
Bytes make_bmp(const BmpForm& f, const Colours& colours = kQuadrants) {
  const bool trailing_masks = f.info_size == 40 && f.compression == 3;
  const std::size_t offset = 14 + f.info_size + (trailing_masks ? 12 : 0);
  const std::size_t stride = (kWidth * f.bits / 8 + 3) / 4 * 4;
  Bytes b(offset + stride * kHeight);
  b[0] = 'B', b[1] = 'M', b[26] = 1, b[28] = f.bits;
  put32(b, 2, b.size()), put32(b, 10, offset), put32(b, 14, f.info_size);
  put32(b, 18, kWidth), put32(b, 22, f.top_down ? -kHeight : kHeight), put32(b, 30, f.compression);
  if (f.info_size >= 52 || trailing_masks) {
    put32(b, 54, 0xFF0000), put32(b, 58, 0xFF00), put32(b, 62, 0xFF);
  }
  if (f.info_size >= 56) put32(b, 66, f.alpha_mask);
  for (int y = 0; y < kHeight; ++y) {
    const std::size_t row = offset + stride * (f.top_down ? y : kHeight - 1 - y);
    for (int x = 0; x < kWidth; ++x) {
      const std::uint32_t c = colours[(x >= kWidth / 2) + 2 * (y >= kHeight / 2)];
      for (int i = 0; i < f.bits / 8; ++i) b[row + x * f.bits / 8 + i] = c >> (8 * i);
    }
  }
  return b;
}

void write_file(const fs::path& p, const Bytes& b) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
}

Bytes read_file(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::set<fs::path> tree(const fs::path& root) {
  return {fs::recursive_directory_iterator(root), fs::recursive_directory_iterator()};
}

class Gridfit : public testing::Test {
 protected:
  void SetUp() override {
    static const fs::path base = fs::temp_directory_path();  // before any test sets TMPDIR
    std::string pattern = (base / "gridfit-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    fs::create_directories(root_ / "image");
    fs::create_directories(root_ / "cache");
    setenv("TMPDIR", (root_ / "cache").c_str(), 1);
  }
  void TearDown() override { fs::remove_all(root_); }

  // sent_ keeps the buffer as it went in, buffer_ as the call left it.
  int convert(const fs::path& dir, int stream_height, int stream_width = 1920) {
    sent_.fill('#');
    std::strncpy(sent_.data(), dir.c_str(), sent_.size() - 1);
    buffer_ = sent_;
    return gridfit_convert(buffer_.data(), 0, &out1_, &out2_, stream_height, stream_width);
  }

  fs::path root_;
  std::array<char, GRIDFIT_PATH_SIZE> sent_{}, buffer_{};
  int out1_ = 17, out2_ = 23;
};

struct Conversion {
  const char* name;
  BmpForm form;
  bool alpha;
  int stream_height, want_w, want_h;
};
void PrintTo(const Conversion& c, std::ostream* os) { *os << c.name; }

class GridfitConversion : public Gridfit, public testing::WithParamInterface<Conversion> {};

TEST_P(GridfitConversion, WritesScaledStraightArgb) {
  const Conversion& c = GetParam();
  write_file(root_ / "image" / "bmp", make_bmp(c.form));
  ASSERT_EQ(convert(root_ / "image", c.stream_height), 0);
  EXPECT_TRUE(out1_ == 17 && out2_ == 23);  // reserved outputs untouched
  const fs::path out = buffer_.data();
  EXPECT_EQ(out.parent_path().parent_path(), root_ / "cache");

  const Bytes ovl = read_file(out);
  ASSERT_EQ(ovl.size(), 78u + 4u * c.want_w * c.want_h);
  Bytes header(10, 0);  // bytes 12 on are the converter's own
  header[0] = 'o', header[1] = 'g', header[2] = '4', header[5] = 16;
  header[6] = c.want_w & 0xFF, header[7] = c.want_w >> 8;
  header[8] = c.want_h & 0xFF, header[9] = c.want_h >> 8;
  EXPECT_EQ(Bytes(ovl.begin(), ovl.begin() + 10), header);

  for (int q = 0; q < 4 && c.want_w > 8; ++q) {  // quadrant centres, away from the blur
    const int x = c.want_w / 4 + (q % 2) * c.want_w / 2, y = c.want_h / 4 + (q / 2) * c.want_h / 2;
    const std::uint8_t* px = &ovl[78 + 4 * (y * c.want_w + x)];
    const std::uint32_t want = c.alpha ? kQuadrants[q] : kQuadrants[q] | 0xFF000000;
    const int alpha = want >> 24;
    EXPECT_NEAR(px[3], alpha, 1) << "quadrant " << q;
    for (int i = 0; i < 3 && alpha > 0; ++i) {  // straightening costs precision at low alpha
      EXPECT_NEAR(px[i], (want >> (8 * i)) & 0xFF, alpha == 255 ? 1 : 2) << "quadrant " << q;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Bitmaps, GridfitConversion,
    testing::Values(Conversion{"rgb24_1080", kRgb24, false, 1080, 101, 61},
                    Conversion{"rgb24_720", kRgb24, false, 720, 67, 41},
                    Conversion{"rgb24_360", kRgb24, false, 360, 34, 20},
                    Conversion{"rgb24_tiny", kRgb24, false, 1, 1, 1},
                    Conversion{"v5alpha_720", kV5Alpha, true, 720, 67, 41},
                    Conversion{"v5alpha_2160", kV5Alpha, true, 2160, 202, 122},
                    // The 56-byte header is the first to carry an alpha mask.
                    Conversion{"v3alpha_720", {32, true, 56, 3, 0xFF000000}, true, 720, 67, 41},
                    // Without an alpha mask the 4th byte is padding: opaque.
                    Conversion{"rgb32_plain", {32, false, 40, 0, 0}, false, 720, 67, 41},
                    Conversion{"bitfields_after_header", {32, true, 40, 3, 0}, false, 360, 34, 20}),
    [](const auto& info) { return std::string(info.param.name); });

// Unscaled (a 1080-line stream), translucent colours come back exactly as
// they went in: straightening rounds to the nearest value, where truncating
// would give 59 for 60 at half alpha and 127 for 128 at alpha 2.
TEST_F(Gridfit, UnscaledTranslucentColoursComeBackExactly) {
  constexpr Colours kExact{0x803C3C3C, 0x02808080, 0xFF102030, 0x80FF3C00};
  write_file(root_ / "image" / "bmp", make_bmp(kV5Alpha, kExact));
  ASSERT_EQ(convert(root_ / "image", 1080), 0);
  const Bytes ovl = read_file(buffer_.data());
  ASSERT_EQ(ovl.size(), 78u + 4u * kWidth * kHeight);
  for (int q = 0; q < 4; ++q) {
    const int x = kWidth / 4 + (q % 2) * kWidth / 2, y = kHeight / 4 + (q / 2) * kHeight / 2;
    std::uint32_t word = 0;
    std::memcpy(&word, &ovl[78 + 4 * (y * kWidth + x)], 4);
    EXPECT_EQ(word, kExact[q]) << "quadrant " << q;
  }
}

// A bitmap replaced in place with its old date restored, or by a file dated
// long ago moved over it (as mv, cp -p and tar x make it), is converted again.
TEST_F(Gridfit, ReusesConversionUntilTheBitmapFileChanges) {
  const fs::path bmp = root_ / "image" / "bmp", old = root_ / "old";
  write_file(bmp, make_bmp(kRgb24));
  struct stat first = {}, again = {};
  ASSERT_EQ(convert(root_ / "image", 720), 0);
  const std::string out = buffer_.data();
  ASSERT_EQ(stat(out.c_str(), &first), 0);
  ASSERT_EQ(convert(root_ / "image", 720), 0);
  ASSERT_EQ(stat(buffer_.data(), &again), 0);
  EXPECT_EQ(again.st_ino, first.st_ino) << "reused";
  auto shows = [&](std::uint8_t blue) {
    EXPECT_EQ(convert(root_ / "image", 720), 0);
    return buffer_.data() == out && read_file(out).at(78) == blue;
  };
  auto picture = [](std::uint8_t blue) { return make_bmp(kRgb24, {blue, blue, blue, blue}); };
  ASSERT_EQ(stat(bmp.c_str(), &again), 0);
  const timespec same[2] = {again.st_atim, again.st_mtim}, past[2] = {{1000000, 0}, {1000000, 0}};
  usleep(20000);                   // past a tick of the file system's clock
  write_file(bmp, picture(0x10));  // same inode and size: only the change time tells
  ASSERT_EQ(utimensat(AT_FDCWD, bmp.c_str(), same, 0), 0);
  EXPECT_TRUE(shows(0x10));
  write_file(old, picture(0x20));
  ASSERT_EQ(utimensat(AT_FDCWD, old.c_str(), past, 0), 0);
  fs::rename(old, bmp);
  EXPECT_TRUE(shows(0x20));
}

TEST_F(Gridfit, OneFilePerRealDirectoryAndStreamSize) {
  fs::create_directories(root_ / "other");
  write_file(root_ / "image" / "bmp", make_bmp(kRgb24));
  write_file(root_ / "other" / "bmp", make_bmp(kRgb24));
  fs::create_directory_symlink(root_ / "image", root_ / "link");
  std::set<std::string> paths;
  for (const auto& [dir, w, h] : {std::tuple{"image", 1280, 720},
                                  {"other", 1280, 720},
                                  {"image", 1920, 720},
                                  {"image", 1280, 360}}) {
    ASSERT_EQ(convert(root_ / dir, h, w), 0);
    paths.insert(buffer_.data());
  }
  EXPECT_EQ(paths.size(), 4u);
  ASSERT_EQ(convert(root_ / "link", 720, 1280), 0);
  EXPECT_EQ(paths.count(buffer_.data()), 1u);
}

TEST_F(Gridfit, BadInputLeavesBufferAndDiskUnchanged) {
  // Damage to a good 24-bit bitmap (emptied: no directory), and the stream height.
  const std::tuple<const char*, std::function<void(Bytes&)>, int> cases[] = {
      {"missing_dir", [](Bytes& b) { b.clear(); }, 720},
      {"zero_stream_height", [](Bytes&) {}, 0},
      {"negative_stream_height", [](Bytes&) {}, -720},
      {"truncated_pixels", [](Bytes& b) { b.resize(b.size() - 3); }, 720},
      {"truncated_header", [](Bytes& b) { b.resize(30); }, 720},
      {"bits_8", [](Bytes& b) { b[28] = 8; }, 720},
      {"rle8", [](Bytes& b) { b[30] = 1; }, 720},
      {"info_size_past_end", [](Bytes& b) { b.resize(60), put32(b, 14, 124); }, 720},
      {"offset_past_end", [](Bytes& b) { put32(b, 10, b.size() + 1); }, 720},
      {"offset_inside_header", [](Bytes& b) { put32(b, 10, 20); }, 720},
      {"zero_width", [](Bytes& b) { put32(b, 18, 0); }, 720},
      {"height_int_min", [](Bytes& b) { put32(b, 22, 0x80000000); }, 720},
      {"absurd_width", [](Bytes& b) { put32(b, 18, 0x7FFFFFFF); }, 720},
      {"swapped_masks",
       [](Bytes& b) {
         b = make_bmp({32, false, 124, 3, 0}), put32(b, 54, 0xFF), put32(b, 62, 0xFF0000);
       },
       720},
      {"too_large_for_stream", [](Bytes&) {}, 1 << 30}};
  for (const auto& [name, damage, stream_height] : cases) {
    SCOPED_TRACE(name);
    Bytes bmp = make_bmp(kRgb24);
    damage(bmp);
    if (!bmp.empty()) write_file(root_ / "image" / "bmp", bmp);
    const auto before = tree(root_);
    EXPECT_LT(convert(root_ / (bmp.empty() ? "missing" : "image"), stream_height), 0);
    EXPECT_EQ(buffer_, sent_);
    EXPECT_EQ(tree(root_), before);
  }
}

TEST_F(Gridfit, RefusesPathsThatDoNotFitTheBuffer) {
  write_file(root_ / "image" / "bmp", make_bmp(kRgb24));
  // A good directory, but its NUL lies one byte past the buffer.
  std::array<char, GRIDFIT_PATH_SIZE + 1> unterminated{};
  unterminated.fill('/');
  std::memcpy(unterminated.data(), root_.c_str(), root_.string().size());
  std::memcpy(unterminated.data() + root_.string().size(), "/image", 6);
  unterminated.back() = '\0';
  const auto sent = unterminated;
  EXPECT_LT(gridfit_convert(unterminated.data(), 0, nullptr, nullptr, 720, 1280), 0);
  EXPECT_EQ(unterminated, sent);
  EXPECT_LT(gridfit_convert(nullptr, 0, nullptr, nullptr, 720, 1280), 0);

  // TMPDIR deep enough that the cache path takes all 511 characters, then one more.
  ASSERT_EQ(convert(root_ / "image", 720), 0);
  std::string deep = (root_ / "cache").string();
  const std::size_t name = std::strlen(buffer_.data()) - deep.size();
  while (deep.size() + name < GRIDFIT_PATH_SIZE - 1) {
    const std::size_t length = std::min<std::size_t>(200, 510 - deep.size() - name);
    deep += '/';
    deep.append(length, 'd');
  }
  for (const bool fits : {true, false}) {
    fs::create_directories(deep);
    setenv("TMPDIR", deep.c_str(), 1);
    const auto before = tree(root_);
    EXPECT_EQ(convert(root_ / "image", 720) == 0, fits);
    EXPECT_TRUE(fits || (tree(root_) == before && buffer_ == sent_));
    deep += "d";
  }
}

}  // namespace
