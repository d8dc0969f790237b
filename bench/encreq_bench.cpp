// The encoder's per-frame call against the simulated driver: a frame with
// nothing to do, a frame with a clock text whose second did not change, one
// whose second changed, and a gathering after one change among 8 overlays.
// Each reports the driver calls a frame makes.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "camsim.h"
#include "tokenfill.h"
#include "zantrel.h"

namespace {

// The owner's table with `plain` plain overlays and, when `clock` is given, a
// clock text on stream 0 of a 1080p stream, and that stream's context with
// its first composition done.
class Scene {
 public:
  Scene(int plain, const char* clock) {
    if (camsim_reset() != 0 || overlay_init(0) <= 0) {
      std::fprintf(stderr, "encreq_bench: no simulated driver or table\n");
      std::exit(1);
    }
    for (int i = 0; i < plain; ++i) {
      ovl_.priority = 10 + i;
      ovl_.width = 64;
      ovl_.height = 32;
      ovl_.nbr_buffers = 1;
      ovl_.format = OVERLAY_FORMAT_ARGB32;
      ovl_.position = {static_cast<float>(80 * i), 0, 1, 1, 0};
      plain_.push_back(overlay_create(&ovl_));
      overlay_add_to_stream(plain_.back(), 0, 0);
    }
    if (clock != nullptr) {
      overlay_text text{};
      std::snprintf(text.text, sizeof text.text, "%s", clock);
      text.overlay.priority = 100;
      text.overlay.position = {0.05F, 0.05F, 1, 1, OVERLAY_COORDS_NORMALIZED};
      text.font_size = 32;
      text.text_color = OVERLAY_COLOR_WHITE;
      text.outline_color = OVERLAY_COLOR_BLACK;
      text.background_color = OVERLAY_COLOR_TRANSPARENT;
      overlay_add_to_stream(overlay_text_create(&text), 0, 0);
    }
    expansion_ = tokenfill_init();
    params_ = {expansion_, &now_};
    context_ = overlay_stream_context_create(
        o_get_fd(), 0, 0, 0, 1920, 1080,
        OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN);
    frame();
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  ~Scene() {
    overlay_stream_context_destroy(context_);
    tokenfill_exit(expansion_);
    overlay_deinit();
  }

  void frame() { overlay_setup_in_encreq(context_, &request_, &params_); }
  // Moves the first plain overlay to and fro: one change of the main table.
  void move_first_plain() {
    ovl_.priority = 10;
    ovl_.position.x = ovl_.position.x == 0 ? 8 : 0;
    overlay_update(plain_.front(), &ovl_);
  }
  timeval& now() { return now_; }
  const overlay_encreq& request() const { return request_; }

 private:
  overlay ovl_{};
  std::vector<int> plain_;
  tokenfill_context* expansion_ = nullptr;
  timeval now_{1700000000, 0};
  overlay_expansion_params params_{};
  overlay_stream_context* context_ = nullptr;
  overlay_encreq request_{};
};

void driver_calls(benchmark::State& state, long calls) {
  state.counters["driver_calls_per_frame"] =
      benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kAvgIterations);
}

// Nothing changed and no modifiable text: two version reads and a compare.
void BM_FrameUnchanged(benchmark::State& state) {
  Scene scene(4, nullptr);
  const long before = camsim_total_calls();
  for (auto _ : state) {
    scene.frame();
    benchmark::DoNotOptimize(scene.request());
  }
  driver_calls(state, camsim_total_calls() - before);
}
BENCHMARK(BM_FrameUnchanged);

// A clock text whose second did not change: expanded, compared, not drawn.
void BM_FrameClockSameSecond(benchmark::State& state) {
  Scene scene(4, "%H:%M:%S");
  const long before = camsim_total_calls();
  for (auto _ : state) {
    scene.now().tv_usec = (scene.now().tv_usec + 40000) % 1000000;
    scene.frame();
    benchmark::DoNotOptimize(scene.request());
  }
  driver_calls(state, camsim_total_calls() - before);
}
BENCHMARK(BM_FrameClockSameSecond);

// The clock's second changed: drawn again into a free buffer of its overlay.
void BM_FrameClockNextSecond(benchmark::State& state) {
  Scene scene(4, "%H:%M:%S");
  const long before = camsim_total_calls();
  for (auto _ : state) {
    ++scene.now().tv_sec;
    scene.frame();
    benchmark::DoNotOptimize(scene.request());
  }
  driver_calls(state, camsim_total_calls() - before);
}
BENCHMARK(BM_FrameClockNextSecond)->Unit(benchmark::kMicrosecond);

// One change of the main table with 8 overlays on the stream: the gathering,
// the composition and the refresh. Argument 1 makes one of the 8 a clock text,
// whose text context a gathering ends, so it is drawn again as well. The
// change itself is not timed.
void BM_GatherAfterChange(benchmark::State& state) {
  const bool clock = state.range(0) != 0;
  Scene scene(clock ? 7 : 8, clock ? "%H:%M:%S" : nullptr);
  long calls = 0;
  for (auto _ : state) {
    state.PauseTiming();
    scene.move_first_plain();
    const long before = camsim_total_calls();
    state.ResumeTiming();
    scene.frame();
    benchmark::DoNotOptimize(scene.request());
    state.PauseTiming();
    calls += camsim_total_calls() - before;
    state.ResumeTiming();
  }
  driver_calls(state, calls);
}
BENCHMARK(BM_GatherAfterChange)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // overlay_init removes every table in /dev/shm and the simulator keeps its
  // state there: the run gets a private tmpfs, or does not run at all.
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
    std::perror("encreq_bench: a private /dev/shm");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
