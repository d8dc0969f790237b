// Stopping the virtual camera: whatever moment a stop signal reaches it, the
// children clean up, the supervisor waits for them, and nothing stays.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "camsim.h"
#include "options.h"
#include "vcam_test_util.h"

namespace {

struct StopCase {
  const char* name;
  int signal;
  // Wait for the video to run before stopping; otherwise stop at once, while
  // the processes are still starting or building the scene.
  bool after_first_frames;
};

void PrintTo(const StopCase& c, std::ostream* out) { *out << c.name; }

class VcamStop : public testing::TestWithParam<StopCase> {};

TEST_P(VcamStop, LeavesNoTableAndNoHardwareOverlay) {
  const StopCase& c = GetParam();
  vcam_test::TempDir dir;
  vcam_test::VcamProcess vcam({"--seconds", "600", "--out", dir.path()},
                              dir.path() + "/stdout.txt");
  if (c.after_first_frames) {
    // Without a terminal the progress is one line a simulated second.
    ASSERT_TRUE(vcam.wait_for_line("frame 30/18000")) << vcam.stderr_text();
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // Only the supervisor is told, as by kill(1): it must pass the stop on.
  ASSERT_EQ(kill(vcam.pid(), c.signal), 0);
  EXPECT_EQ(vcam.wait(), 128 + c.signal) << vcam.stderr_text();
  if (c.after_first_frames) {
    // At once, the signal may come before the handlers exist and end the
    // process before it has made anything; the status is the same.
    EXPECT_NE(vcam.stderr_text().find("cleaned up"), std::string::npos) << vcam.stderr_text();
  }
  EXPECT_EQ(vcam.stderr_text().find("was not cleaned up"), std::string::npos);
  EXPECT_TRUE(vcam_test::table_files().empty());
  EXPECT_EQ(camsim_live_count(), 0);
}

INSTANTIATE_TEST_SUITE_P(Signals, VcamStop,
                         testing::Values(StopCase{"IntDuringVideo", SIGINT, true},
                                         StopCase{"TermDuringVideo", SIGTERM, true},
                                         StopCase{"IntAtStart", SIGINT, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VcamUsage, RefusedBeforeAnythingStarts) {
  const std::vector<std::vector<std::string>> refused{
      {"--seconds", "0"},
      {"--seconds", "3s"},
      {"--seconds", "3601"},
      {"--streams", "1919x1080"},
      {"--streams", "1920x"},
      {"--streams", "1920x1080,,640x360"},
      {"--streams", "64x64,64x64,64x64,64x64,64x64,64x64,64x64,64x64,64x64"},
      {"--fps", "60"},
      {"--seconds"},
      {"--soak", "--seconds", "604801"}};
  for (std::vector<std::string> args : refused) {
    args.insert(args.begin(), "zantrel-vcam");
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    EXPECT_THROW(vcam::parse_options(static_cast<int>(argv.size()), argv.data()), vcam::UsageError)
        << args[1];
  }
  std::string soak[] = {"zantrel-vcam", "--soak"};
  char* soak_argv[] = {soak[0].data(), soak[1].data()};
  EXPECT_EQ(vcam::parse_options(2, soak_argv).seconds, 3600);

  vcam_test::TempDir dir;
  vcam_test::VcamProcess vcam({"--out", dir.path() + "/pictures", "--fps", "60"},
                              dir.path() + "/stdout.txt");
  EXPECT_EQ(vcam.wait(), 2);
  EXPECT_NE(vcam.stderr_text().find("usage:"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/pictures"));
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/camsim_state"));
}

}  // namespace
