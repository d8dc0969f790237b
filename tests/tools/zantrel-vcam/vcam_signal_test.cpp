// Stopping the virtual camera: whatever moment a stop signal reaches it, the
// children clean up, the supervisor waits for them, and nothing stays. And
// the mistakes on its command line and snapshot's, refused before anything
// starts.
#include <gtest/gtest.h>

#include <csignal>
#include <iterator>
#include <sstream>
#include <thread>

#include "camsim.h"
#include "options.h"
#include "vcam_test_util.h"

namespace {

// Words of a command line.
std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), {}};
}

vcam::Options parse(const std::string& line) {
  std::vector<std::string> args = words("zantrel-vcam " + line);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  return vcam::parse_options(static_cast<int>(argv.size()), argv.data());
}

struct StopCase {
  const char* name;
  std::string args;
  // The line to wait for before stopping; empty: stop at once, while the
  // processes are still starting or building the scene.
  std::string after;
};

void PrintTo(const StopCase& c, std::ostream* out) { *out << c.name; }

class VcamStop : public testing::TestWithParam<StopCase> {};

TEST_P(VcamStop, LeavesNoTableAndNoHardwareOverlay) {
  const StopCase& c = GetParam();
  const std::string dir = vcam_test::temp_dir();
  vcam_test::VcamProcess vcam(words(c.args + " --out " + dir), dir + "/stdout.txt");
  if (!c.after.empty()) {
    ASSERT_TRUE(vcam.wait_for_line(c.after)) << vcam.stderr_text();
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // Only the supervisor is told, as by kill(1): it must pass the stop on.
  // Live, a stop is the ordinary end.
  ASSERT_EQ(kill(vcam.pid(), SIGINT), 0);
  EXPECT_EQ(vcam.wait(), c.args.starts_with("--serve") ? 0 : 128 + SIGINT) << vcam.stderr_text();
  if (!c.after.empty()) {
    // At once, the signal may come before the handlers exist and end the
    // process before it has made anything; the status is the same.
    EXPECT_NE(vcam.stderr_text().find("cleaned up"), std::string::npos) << vcam.stderr_text();
  }
  EXPECT_EQ(vcam.stderr_text().find("was not cleaned up"), std::string::npos);
  EXPECT_TRUE(zantrel::test::table_files().empty());
  EXPECT_EQ(camsim_live_count(), 0);
}

// Without a terminal the progress is one line a simulated second. SIGTERM
// stops the live test's run.
INSTANTIATE_TEST_SUITE_P(
    Signals, VcamStop,
    testing::Values(StopCase{"IntDuringVideo", "--seconds 600", "frame 30/18000"},
                    StopCase{"IntAtStart", "--seconds 600", ""},
                    StopCase{"IntLiveWithTheScene", "--serve --demo", "live on"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(VcamUsage, RefusedBeforeAnythingStarts) {
  for (const char* line :
       {"--seconds 0", "--seconds 3s", "--seconds 3601", "--streams 1919x1080", "--streams 1920x",
        "--streams 1920x1080,,640x360",
        "--streams 64x64,64x64,64x64,64x64,64x64,64x64,64x64,64x64,64x64", "--fps 60", "--seconds",
        "--soak --seconds 604801", "--serve --seconds 5", "--serve --soak", "--demo", "--y4m -",
        "--serve --y4m-stream 1", "--serve --y4m - --y4m-stream 3", "--serve --y4m="}) {
    EXPECT_THROW(parse(line), vcam::UsageError) << line;
  }
  EXPECT_EQ(parse("--soak").seconds, 3600);
  EXPECT_EQ(parse("--serve --y4m - --y4m-stream 2").y4m_stream, 2u);

  const std::string dir = vcam_test::temp_dir();
  vcam_test::VcamProcess vcam({"--out", dir + "/pictures", "--fps", "60"}, dir + "/stdout.txt");
  EXPECT_EQ(vcam.wait(), 2);
  EXPECT_NE(vcam.stderr_text().find("usage:"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir + "/pictures"));
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/camsim_state"));
}

TEST(VcamUsage, SnapshotRefusesBadArguments) {
  const std::string dir = vcam_test::temp_dir(), out = " -o " + dir + "/x.png";
  for (const std::string& line :
       {"--size 320x180" + out, "--stream 1" + out, std::string("--stream 1 --size 320x180"),
        "--stream -1 --size 320x180" + out, "--stream 1 --size 320x" + out,
        "--stream 1 --size 320x180 --channel 16" + out, "--stream 1 --size 320x180 extra" + out,
        "--stream 1 --size 320x180 --fps 30" + out, "--stream 1 --size 320x180" + out}) {
    // Every mistake gets the usage; good arguments without an overlay
    // system running say what to start.
    const bool usable = line == "--stream 1 --size 320x180" + out;
    vcam_test::VcamProcess ctl(words("snapshot " + line), dir + "/out.txt", ZANTRELCTL);
    EXPECT_EQ(ctl.wait(), usable ? 1 : 2) << line;
    EXPECT_NE(ctl.stderr_text().find(usable ? "zantrel-vcam --serve" : "usage:"), std::string::npos)
        << ctl.stderr_text();
  }
  EXPECT_FALSE(std::filesystem::exists(dir + "/x.png"));
}

}  // namespace
