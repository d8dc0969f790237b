// Two builds draw the same pictures byte for byte: in the workstation build
// two runs of its own (the clock is simulated, the scene changes at a fixed
// frame); in the cross build for the camera, against the workstation build,
// where a word-size or byte-order fault in a record, a pixel conversion or
// the renderer shows as a difference.
#include <filesystem>
#include <string>

#include "vcam_test_util.h"

namespace {

TEST(VcamRepeat, PeerDrawsTheSamePictures) {
  if (!std::filesystem::exists(ZANTREL_PEER_VCAM)) {
    GTEST_SKIP() << "no workstation build to compare with at " ZANTREL_PEER_VCAM
                    " (cmake --build --preset dev first)";
  }
  const std::string dir = vcam_test::temp_dir(), ours = dir + "/ours", theirs = dir + "/peer";
  for (const auto& [program, out] : {std::pair{ZANTREL_VCAM, ours}, {ZANTREL_PEER_VCAM, theirs}}) {
    vcam_test::VcamProcess vcam(
        {"--seconds", "2", "--streams", "1280x720,640x360,320x240", "--out", out},
        dir + "/stdout.txt", program);
    ASSERT_EQ(vcam.wait(), 0) << program << ": " << vcam.stderr_text();
  }
  int compared = 0;
  for (const auto& entry : std::filesystem::directory_iterator(theirs)) {
    const std::string name = entry.path().filename().string();
    const std::string picture = vcam_test::read_text(entry.path().string());
    EXPECT_FALSE(picture.empty()) << name;
    EXPECT_TRUE(picture == vcam_test::read_text(ours + "/" + name)) << name << " differs";
    ++compared;
  }
  // Four captures of each stream and the contact sheet.
  EXPECT_EQ(compared, 13);
}

}  // namespace
