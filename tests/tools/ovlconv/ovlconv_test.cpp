// ovlconv as a user runs it: the round trip through ".ovl" and back, and
// the input it refuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "device_test_util.h"

namespace {

using namespace device_test;  // NOLINT(google-build-using-namespace)

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

// The two pixels of a packed pair share the mean of their chroma, whatever
// their order: red and blue give the same (Cr, Cb) as blue and red.
TEST(Ovlconv, PairsShareTheMeanChroma) {
  write_png(dir() + "/pair.png", 2, 2, {0xFFFF0000, 0xFF0000FF, 0xFF0000FF, 0xFFFF0000});
  ASSERT_EQ(ovlconv({"to-ovl", "--packed", dir() + "/pair.png", dir() + "/pair.ovl"}), 0);
  const Bytes ovl = read_file(dir() + "/pair.ovl");
  ASSERT_EQ(ovl.size(), 78U + 8);  // each row: Cr, Y, Cb, Y
  EXPECT_EQ(std::pair(ovl[78], ovl[80]), std::pair(ovl[82], ovl[84]));
  EXPECT_NE(std::pair(ovl[78], ovl[80]), std::pair(uint8_t{128}, uint8_t{128}));
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
