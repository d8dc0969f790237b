// One expansion per frame and stream is the encoder's steady load; the date
// and time stamp is the common template.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <memory>

#include "tokenfill.h"

namespace {

void expand(benchmark::State& state, const char* text, int local) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  std::unique_ptr<tokenfill_context, decltype(&tokenfill_exit)> context{tokenfill_init(),
                                                                        tokenfill_exit};
  context->use_local_time = local;
  timeval time{1798759805, 0};
  char out[512];
  for (auto _ : state) {
    ++time.tv_sec;  // every frame a new second, as the worst case
    benchmark::DoNotOptimize(tokenfill_expand(out, sizeof out, text, context.get(), &time));
    benchmark::ClobberMemory();
  }
}

BENCHMARK_CAPTURE(expand, date_time_utc, "#D #T", 0);
BENCHMARK_CAPTURE(expand, date_time_local, "#D #T", 1);
BENCHMARK_CAPTURE(expand, strftime_local, "%Y-%m-%d %H:%M:%S", 1);
BENCHMARK_CAPTURE(expand, camera_label, "Gate 3 #n  #D #T", 1);

}  // namespace

BENCHMARK_MAIN();
