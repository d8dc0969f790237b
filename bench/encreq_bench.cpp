// The encoder's per-frame call against the simulated driver: a frame with
// nothing to do, a frame with a clock text whose second did not change, one
// whose second changed, a gathering after one change among 8 overlays, and a
// simulated minute of a clock text on four streams of different sizes.
// Each reports the driver calls a frame makes, or the redraws per
// stream-second.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "camsim.h"
#include "tokenfill.h"
#include "zantrel-base/private_dev_shm.h"
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

// A clock text ("#D #T", font size `range(1)`, scalable when `range(0)` is 1)
// on four streams of one channel, run for a simulated minute of frames per
// iteration. A clock should be drawn once a second on every stream, whatever
// the stream's size; cpu_per_call is the mean CPU time of one call.
void BM_ClockMinute(benchmark::State& state) {
  struct Size {
    uint32_t width;
    uint32_t height;
    const char* name;
  };
  constexpr Size kSizes[] = {{1920, 1080, "redraws_per_s_1080"},
                             {1280, 720, "redraws_per_s_720"},
                             {640, 360, "redraws_per_s_360"},
                             {320, 240, "redraws_per_s_240"}};
  constexpr int kFrames = 60 * 30;
  if (camsim_reset() != 0 || overlay_init(0) <= 0) {
    state.SkipWithError("no simulated driver or table");
    return;
  }
  overlay_text text{};
  std::snprintf(text.text, sizeof text.text, "#D #T");
  text.overlay.priority = 60;
  text.overlay.position = {0.02F, 0.03F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  text.font_size = static_cast<int32_t>(state.range(1));
  text.scalable = static_cast<int32_t>(state.range(0));
  text.text_color = OVERLAY_COLOR_WHITE;
  text.outline_color = OVERLAY_COLOR_BLACK;
  text.background_color = OVERLAY_COLOR_SEMI_TRANSPARENT;
  overlay_add_to_channel(overlay_text_create(&text), 0);

  tokenfill_context* expansion = tokenfill_init();
  timeval now{1795348800, 0};
  const overlay_expansion_params params{expansion, &now};
  std::vector<overlay_stream_context*> contexts;
  std::vector<overlay_encreq> requests(std::size(kSizes));
  for (const Size& size : kSizes) {
    contexts.push_back(overlay_stream_context_create(
        o_get_fd(), 0, static_cast<unsigned>(contexts.size()), 0, size.width, size.height,
        OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN));
  }
  // The first frame gathers and draws; what follows is the steady state.
  for (size_t s = 0; s < contexts.size(); ++s) {
    overlay_setup_in_encreq(contexts[s], &requests[s], &params);
  }
  std::vector<long> redraws(contexts.size(), 0);
  long frames = 0;
  for (auto _ : state) {
    const timeval start = now;
    for (size_t s = 0; s < contexts.size(); ++s) {
      const long before = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
      for (int frame = 0; frame < kFrames; ++frame) {
        now.tv_sec = start.tv_sec + frame / 30;
        now.tv_usec = static_cast<suseconds_t>(frame % 30) * 1000000 / 30;
        overlay_setup_in_encreq(contexts[s], &requests[s], &params);
      }
      redraws[s] += camsim_call_count(CAMSIM_SUBMIT_BUFFER) - before;
    }
    now.tv_sec = start.tv_sec + kFrames / 30;
    frames += kFrames;
  }
  for (size_t s = 0; s < contexts.size(); ++s) {
    state.counters[kSizes[s].name] =
        static_cast<double>(redraws[s]) * 30.0 / static_cast<double>(frames > 0 ? frames : 1);
  }
  state.counters["cpu_per_call"] =
      benchmark::Counter(static_cast<double>(frames) * static_cast<double>(contexts.size()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  for (overlay_stream_context* context : contexts) overlay_stream_context_destroy(context);
  tokenfill_exit(expansion);
  overlay_deinit();
}
BENCHMARK(BM_ClockMinute)
    ->ArgNames({"scalable", "font_size"})
    ->ArgsProduct({{0, 1}, {28, 40}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // overlay_init removes every table in /dev/shm and the simulator keeps its
  // state there: the run gets a private tmpfs, or does not run at all.
  if (!zantrel::private_dev_shm()) {
    std::perror("encreq_bench: a private /dev/shm");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
