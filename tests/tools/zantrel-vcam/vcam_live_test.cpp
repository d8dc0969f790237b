// The live camera as a developer uses it: zantrel-vcam --serve, a C program
// run under camsim-run that leaves a box on every stream and a text on
// stream 1, the next live pictures, a snapshot and the video, then a stop
// that leaves nothing behind.
#include "camsim.h"
#include "vcam_test_util.h"

namespace {

using vcam_test::Picture;

// Where hello_overlays.c puts its overlays (pixels); the text is 80 x 30 at 32
// pixels with a black background, so every pixel of it is drawn.
constexpr int kBox[] = {24, 40, 48, 32};
constexpr int kText[] = {120, 100, 80, 30};
constexpr int kW = 320, kH = 180;  // stream 1; stream 0 is twice as large

TEST(VcamLive, ShowsWhatAProgramMadeUntilStopped) {
  const std::string d = vcam_test::temp_dir();
  vcam_test::VcamProcess vcam({"--serve", "--streams", "640x360,320x180", "--out", d, "--y4m",
                               d + "/video.y4m", "--y4m-stream", "1"},
                              d + "/stdout.txt");
  ASSERT_TRUE(vcam.wait_for_line("live on 2 streams")) << vcam.stderr_text();
  // A second camera would reset the driver under the first: it refuses,
  // naming the running one, which goes on as below.
  vcam_test::VcamProcess second({"--serve", "--out", d + "/second"}, d + "/second.txt");
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(second.stderr_text().find("(pid " + std::to_string(vcam.pid())), std::string::npos)
      << second.stderr_text();
  vcam_test::VcamProcess app({HELLO_OVERLAYS}, d + "/app.txt", CAMSIM_RUN);
  ASSERT_EQ(app.wait(), 0) << app.stderr_text();
  kill(vcam.pid(), SIGUSR1);  // pictures now, begun after the program ended
  ASSERT_TRUE(vcam.wait_for_line("written on request")) << vcam.stderr_text();
  const Picture live[] = {Picture(d + "/stream0-640x360.png"), Picture(d + "/stream1-320x180.png")};
  for (int stream : {0, 1}) {
    SCOPED_TRACE(stream);
    const Picture& shot = live[stream];
    EXPECT_EQ(shot.drawn_in(kBox[0], kBox[1], kBox[2], kBox[3]), kBox[2] * kBox[3]);
    EXPECT_EQ(shot.at(kBox[0] + 1, kBox[1] + 1), 0xFFFF0000u);
    const int text = stream == 1 ? kText[2] * kText[3] : 0;
    EXPECT_EQ(shot.drawn_in(kText[0], kText[1], kText[2], kText[3]), text);
    // Nothing anywhere else.
    EXPECT_EQ(shot.drawn_in(0, 0, shot.width(), shot.height()), kBox[2] * kBox[3] + text);
  }

  // In a context of its own: the encoder's overlays stay as they were.
  const int live_overlays = camsim_live_count();
  vcam_test::VcamProcess snapshot(
      {"snapshot", "--stream", "1", "--size", "320x180", "-o", d + "/snap.png"}, d + "/snap.txt",
      ZANTRELCTL);
  ASSERT_EQ(snapshot.wait(), 0) << snapshot.stderr_text();
  vcam_test::VcamProcess nowhere(
      {"snapshot", "--stream", "1", "--size", "320x180", "-o", d + "/none/snap.png"},
      d + "/none.txt", ZANTRELCTL);
  EXPECT_EQ(nowhere.wait(), 1);
  EXPECT_NE(nowhere.stderr_text().find(d + "/none/snap.png: No such file or directory"),
            std::string::npos)
      << nowhere.stderr_text();
  EXPECT_TRUE(Picture(d + "/snap.png").same_in(live[1], 0, 0, kW, kH));
  EXPECT_EQ(camsim_live_count(), live_overlays);
  kill(vcam.pid(), SIGUSR1);
  ASSERT_TRUE(vcam.wait_for_line("written on request")) << vcam.stderr_text();
  EXPECT_TRUE(Picture(d + "/stream1-320x180.png").same_in(live[1], 0, 0, kW, kH));

  ASSERT_EQ(kill(vcam.pid(), SIGTERM), 0);
  EXPECT_EQ(vcam.wait(), 0) << vcam.stderr_text();
  EXPECT_NE(vcam.stderr_text().find("destroyed 2 overlays that programs left"), std::string::npos);
  EXPECT_TRUE(zantrel::test::table_files().empty());
  EXPECT_EQ(camsim_live_count(), 0);

  // Whole frames at the real rate; the last one shows the box in red
  // (BT.601 studio range: Y 82, Cb 90, Cr 240) over the grey picture.
  const std::string video = vcam_test::read_text(d + "/video.y4m");
  const std::string header = "YUV4MPEG2 W320 H180 F30:1 Ip A1:1 C420jpeg\n";
  ASSERT_EQ(video.substr(0, header.size()), header);
  const size_t frame = 6 + kW * kH * 3 / 2;
  EXPECT_EQ((video.size() - header.size()) % frame, 0u);
  ASSERT_GE(video.size(), header.size() + frame);
  const auto* y = reinterpret_cast<const uint8_t*>(video.data() + video.size() - frame + 6);
  const uint8_t *cb = y + kW * kH, *cr = cb + kW * kH / 4;
  const int x0 = kBox[0] + 8, y0 = kBox[1] + 8, chroma = y0 / 2 * kW / 2 + x0 / 2;
  EXPECT_EQ(std::vector<int>({y[y0 * kW + x0], cb[chroma], cr[chroma], y[0]}),
            std::vector<int>({82, 90, 240, (66 + 129 + 25) * 0x40 / 256 + 16}));
}

}  // namespace
