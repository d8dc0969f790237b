// A three-second run of the virtual camera: the composed pictures show the
// scene where its layout puts it, change where the timeline says, and the run
// leaves nothing behind.
#include <gtest/gtest.h>

#include "camsim.h"
#include "options.h"
#include "pictures.h"
#include "scene_layout.h"
#include "scene_pixels.h"
#include "timeline.h"
#include "vcam_test_util.h"

namespace {

namespace L = vcam::layout;
using vcam_test::normalized_pixel;
using vcam_test::Picture;

constexpr vcam::StreamSize kFull{1920, 1080};
constexpr vcam::StreamSize kMiddle{1280, 720};
constexpr vcam::StreamSize kSmall{640, 360};
constexpr int kSeconds = 3;

// One run for every test of this file (ctest runs each test in a process of
// its own, with its own /dev/shm, so each gets a fresh run).
class VcamRun : public testing::Test {
 protected:
  struct Result {
    int exit_code = -1;
    std::string out;
    std::string err;
    std::vector<std::string> tables_after;
    int live_after = -1;
  };

  static void SetUpTestSuite() {
    dir_ = new vcam_test::TempDir();
    result_ = new Result();
    vcam_test::VcamProcess vcam({"--seconds", std::to_string(kSeconds), "--out", dir_->path()},
                                dir_->path() + "/stdout.txt");
    result_->exit_code = vcam.wait();
    result_->err = vcam.stderr_text();
    result_->out = vcam_test::read_text(dir_->path() + "/stdout.txt");
    result_->tables_after = vcam_test::table_files();
    result_->live_after = camsim_live_count();
  }
  static void TearDownTestSuite() {
    delete result_;
    delete dir_;
  }

  static const Result& result() { return *result_; }

  // The picture of stream at the capture of frame.
  static Picture picture(size_t stream, vcam::StreamSize size, int frame) {
    const vcam::Capture capture{frame, vcam::time_label(frame)};
    Picture picture(dir_->path() + "/" + vcam::picture_name(stream, size, capture));
    EXPECT_TRUE(picture.ok()) << "no picture of stream " << stream << " at frame " << frame;
    return picture;
  }

  static inline vcam_test::TempDir* dir_ = nullptr;
  static inline Result* result_ = nullptr;
};

const vcam::Timeline kTimeline = vcam::make_timeline(kSeconds);
// Half a second in, a second later (the change comes just before this
// frame), and the last frame.
constexpr int kEarly = 15;
constexpr int kLater = 45;
constexpr int kLast = kSeconds * vcam::kFramesPerSecond - 1;

TEST_F(VcamRun, EndsCleanlyWithItsSummary) {
  ASSERT_EQ(result().exit_code, 0) << result().err;
  EXPECT_NE(result().out.find("frames:          90 per stream"), std::string::npos) << result().out;
  EXPECT_NE(result().out.find("alive at end:    0 hardware overlays, 0 shared tables"),
            std::string::npos)
      << result().out;
  EXPECT_TRUE(result().tables_after.empty());
  EXPECT_EQ(result().live_after, 0);
}

TEST_F(VcamRun, WritesEveryCaptureAndTheContactSheet) {
  ASSERT_EQ(kTimeline.change_frame, kLater);
  std::vector<int> frames;
  for (const auto& capture : kTimeline.captures) {
    frames.push_back(capture.frame);
  }
  ASSERT_EQ(frames, (std::vector<int>{kEarly, kLater, kLast}));
  const vcam::StreamSize sizes[] = {kFull, kMiddle, kSmall};
  for (size_t stream = 0; stream < 3; ++stream) {
    for (int frame : frames) {
      const Picture shot = picture(stream, sizes[stream], frame);
      ASSERT_TRUE(shot.ok());
      EXPECT_EQ(shot.width(), static_cast<int>(sizes[stream].width));
      EXPECT_EQ(shot.height(), static_cast<int>(sizes[stream].height));
    }
  }
  const Picture sheet(dir_->path() + "/" + vcam::kContactSheetName);
  ASSERT_TRUE(sheet.ok());
  EXPECT_GT(sheet.width(), 3 * 300);
  EXPECT_GT(sheet.height(), 3 * 150);
}

TEST_F(VcamRun, PlainOverlayShowsItsColourThenMovesWithTheNewOne) {
  const Picture before = picture(0, kFull, kEarly);
  const Picture after = picture(0, kFull, kLater);
  const int x = static_cast<int>(L::kPlainX);
  const int y = static_cast<int>(L::kPlainY);
  const int moved_x = static_cast<int>(L::kPlainMovedX);
  const int moved_y = static_cast<int>(L::kPlainMovedY);
  const int cx = static_cast<int>(L::kPlainWidth / 2);
  const int cy = static_cast<int>(L::kPlainHeight / 2);

  EXPECT_EQ(before.at(x + cx, y + cy), L::kPlainColor);
  EXPECT_EQ(before.at(x + 1, y + 1), L::kPlainBorderColor);
  EXPECT_EQ(before.drawn_in(moved_x, moved_y, L::kPlainWidth, L::kPlainHeight), 0);

  EXPECT_EQ(after.at(moved_x + cx, moved_y + cy), L::kPlainColorAfter);
  EXPECT_EQ(after.at(moved_x + 1, moved_y + 1), L::kPlainBorderColor);
  EXPECT_EQ(after.drawn_in(x, y, L::kPlainWidth, L::kPlainHeight), 0);

  // It joined stream 0 only.
  const Picture other = picture(1, kMiddle, kEarly);
  EXPECT_EQ(other.drawn_in(x * 2 / 3, y * 2 / 3, L::kPlainWidth, L::kPlainHeight), 0);
}

TEST_F(VcamRun, ClockShowsTheSimulatedTimeOnEveryStream) {
  const vcam::StreamSize sizes[] = {kFull, kMiddle, kSmall};
  for (size_t stream = 0; stream < 3; ++stream) {
    const vcam::StreamSize size = sizes[stream];
    const int x = normalized_pixel(L::kClockX, size.width);
    const int y = normalized_pixel(L::kClockY, size.height);
    // The clock at 40 pixels on 1080 rows, scaled with the stream.
    const int w = static_cast<int>(size.width) / 4;
    const int h = static_cast<int>(size.height) / 24;
    const Picture first = picture(stream, size, kEarly);
    const Picture second = picture(stream, size, kLater);
    EXPECT_GT(first.drawn_in(x, y, w, h), w * h / 10) << "stream " << stream;
    EXPECT_FALSE(first.same_in(second, x, y, w, h))
        << "stream " << stream << ": the clock did not move on in a second";
  }
}

TEST_F(VcamRun, LogoAndTickerStandWhereTheLayoutSays) {
  const Picture first = picture(0, kFull, kEarly);
  const int logo_x = normalized_pixel(L::kLogoX, kFull.width);
  const int logo_y = normalized_pixel(L::kLogoY, kFull.height);
  // The logo is 128 x 48 with rounded corners; its inside is all drawn.
  EXPECT_EQ(first.drawn_in(logo_x + 12, logo_y + 12, 104, 24), 104 * 24);
  EXPECT_EQ(first.drawn_in(logo_x + 160, logo_y, 64, 48), 0);

  // The ticker runs under the clock; by the next capture it has moved on.
  const int ticker_y = normalized_pixel(L::kTickerY, kFull.height);
  const Picture last = picture(0, kFull, kLast);
  EXPECT_GT(first.drawn_in(0, ticker_y, 400, 24), 400);
  EXPECT_FALSE(first.same_in(last, 0, ticker_y, static_cast<int>(kFull.width), 24));
}

TEST_F(VcamRun, ScalableImageIsScaledForEachStream) {
  const vcam::StreamSize sizes[] = {kFull, kSmall};
  for (const vcam::StreamSize size : sizes) {
    const Picture shot = picture(size.width == kFull.width ? 0 : 2, size, kEarly);
    const int x = normalized_pixel(L::kBitmapX, size.width);
    const int y = normalized_pixel(L::kBitmapY, size.height);
    const uint32_t scaled_w = L::kBitmapWidth * size.height / 1080;
    const uint32_t scaled_h = L::kBitmapHeight * size.height / 1080;
    // The middle of each colour bar, at the scaled size.
    for (uint32_t bar = 0; bar < 8; ++bar) {
      const uint32_t bx = (2 * bar + 1) * scaled_w / 16;
      const uint32_t by = scaled_h / 3;
      const uint32_t want = vcam::test_bitmap_color(
          bx * 1080 / size.height, by * 1080 / size.height, L::kBitmapWidth, L::kBitmapHeight);
      EXPECT_TRUE(vcam_test::near_color(shot.at(x + static_cast<int>(bx), y + static_cast<int>(by)),
                                        want, 24))
          << size.height << " rows, bar " << bar << ": " << std::hex
          << shot.at(x + static_cast<int>(bx), y + static_cast<int>(by)) << " for " << want;
    }
  }
}

TEST_F(VcamRun, PaletteChangeShowsOnTheSwatches) {
  const Picture before = picture(L::kSwatchStream, kMiddle, kEarly);
  const Picture after = picture(L::kSwatchStream, kMiddle, kLater);
  const int x = normalized_pixel(L::kSwatchX, kMiddle.width);
  const int y = normalized_pixel(L::kSwatchY, kMiddle.height);
  const int cell = static_cast<int>(L::kSwatchCellWidth);
  const int changed_x = x + static_cast<int>(L::kChangedIndex) * cell + cell / 2;
  const int mid_y = y + static_cast<int>(L::kSwatchHeight) / 2;
  // The default user bank leaves the index transparent.
  EXPECT_TRUE(before.background_at(changed_x, mid_y));
  EXPECT_TRUE(vcam_test::near_color(after.at(changed_x, mid_y), L::kChangedColor, 12))
      << std::hex << after.at(changed_x, mid_y);
  // Index 2 is the default red, before and after.
  EXPECT_TRUE(vcam_test::near_color(before.at(x + 2 * cell + cell / 2, mid_y), 0xFFFF0000, 12));
  EXPECT_TRUE(vcam_test::near_color(after.at(x + 2 * cell + cell / 2, mid_y), 0xFFFF0000, 12));
}

TEST_F(VcamRun, DestroyedBadgeIsGoneAfterTheChange) {
  const Picture before = picture(L::kRecStream, kSmall, kEarly);
  const Picture after = picture(L::kRecStream, kSmall, kLater);
  const int x = normalized_pixel(L::kRecX, kSmall.width);
  const int y = normalized_pixel(L::kRecY, kSmall.height);
  const int w = static_cast<int>(kSmall.width) - x;
  // Above the legacy band, which lies along the bottom edge.
  const int h = static_cast<int>(kSmall.height) - y - 32;
  EXPECT_GT(before.drawn_in(x, y, w, h), 20);
  EXPECT_EQ(after.drawn_in(x, y, w, h), 0);
}

// The legacy band is drawn for the stream's width and sits on its bottom edge.
TEST_F(VcamRun, LegacyBandLiesAlongTheBottomEdge) {
  const Picture p = picture(L::kRecStream, kSmall, kLater);
  const int width = static_cast<int>(kSmall.width);
  EXPECT_GT(p.drawn_in(0, static_cast<int>(kSmall.height) - 24, width, 24), width * 12);
  EXPECT_EQ(p.drawn_in(0, static_cast<int>(kSmall.height) - 60, width, 30), 0);
}

// The clock runs on simulated time and the scene changes at a fixed frame,
// so a second run draws the very same pictures.
TEST(VcamRepeat, TwoRunsDrawTheSamePictures) {
  vcam_test::TempDir dir;
  const std::string first = dir.path() + "/first";
  const std::string second = dir.path() + "/second";
  for (const std::string& out : {first, second}) {
    vcam_test::VcamProcess vcam({"--seconds", "2", "--streams", "640x360", "--out", out},
                                dir.path() + "/stdout.txt");
    ASSERT_EQ(vcam.wait(), 0) << vcam.stderr_text();
  }
  int compared = 0;
  for (const auto& entry : std::filesystem::directory_iterator(first)) {
    const std::string name = entry.path().filename().string();
    EXPECT_EQ(vcam_test::read_text(entry.path().string()),
              vcam_test::read_text(second + "/" + name))
        << name;
    ++compared;
  }
  // Four captures and the contact sheet.
  EXPECT_EQ(compared, 5);
}

// A short soak: the scene changes every few seconds, and from the first
// change back to the last the processes and the driver stay as they were.
TEST(VcamSoak, ProcessesStayFlat) {
  vcam_test::TempDir dir;
  vcam_test::VcamProcess vcam(
      {"--soak", "--seconds", "40", "--streams", "1280x720,640x360", "--out", dir.path()},
      dir.path() + "/stdout.txt");
  ASSERT_EQ(vcam.wait(), 0) << vcam.stderr_text();
  const std::string out = vcam_test::read_text(dir.path() + "/stdout.txt");
  EXPECT_NE(out.find("gatherings:      1280x720: 9, 640x360: 9"), std::string::npos) << out;
  EXPECT_NE(out.find("processes:       at 08.000s -> at 39.967s"), std::string::npos) << out;
  int live_start = -1, live_end = -2;
  ASSERT_EQ(std::sscanf(out.c_str() + out.find("live overlays:"), "live overlays: %d -> %d",
                        &live_start, &live_end),
            2);
  EXPECT_EQ(live_start, live_end);
  for (const char* process : {"owner", "application", "encoder"}) {
    const size_t at = out.find("    " + std::string(process) + " ");
    ASSERT_NE(at, std::string::npos) << process;
    long size[2], rss[2];
    int fds[2];
    ASSERT_EQ(std::sscanf(out.c_str() + at + 4 + std::strlen(process),
                          " VmSize %ld kB, VmRSS %ld kB, %d fds -> VmSize %ld kB, VmRSS %ld kB, "
                          "%d fds",
                          &size[0], &rss[0], &fds[0], &size[1], &rss[1], &fds[1]),
              6)
        << out;
    EXPECT_EQ(fds[0], fds[1]) << process;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers' own allocators keep freed memory for a while.
    EXPECT_LE(size[1] - size[0], 512) << process;
    EXPECT_LE(rss[1] - rss[0], 512) << process;
#endif
  }
}

TEST(VcamTimeline, CapturesAreOrderedDistinctAndInsideTheRun) {
  for (int seconds : {1, 2, 3, 10}) {
    const vcam::Timeline timeline = vcam::make_timeline(seconds);
    EXPECT_EQ(timeline.frames, seconds * vcam::kFramesPerSecond);
    EXPECT_EQ(timeline.captures.back().frame, timeline.frames - 1);
    for (size_t i = 1; i < timeline.captures.size(); ++i) {
      EXPECT_LT(timeline.captures[i - 1].frame, timeline.captures[i].frame);
    }
  }
  EXPECT_EQ(vcam::make_timeline(10).captures.size(), 4u);
  // A soak run changes the scene an even number of times, ending as it began.
  const vcam::Timeline soak = vcam::make_timeline(40, true);
  EXPECT_EQ(soak.changes, (std::vector<int>{120, 240, 360, 480, 600, 720, 840, 960}));
  EXPECT_EQ(soak.baseline_frame, 240);
  EXPECT_EQ(vcam::time_label(299), "09.967s");
  const timeval last = vcam::frame_time(299);
  EXPECT_EQ(last.tv_sec, vcam::kStartTime + 9);
  EXPECT_EQ(last.tv_usec, 966666);
}

}  // namespace
