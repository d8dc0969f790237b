// The encoder's per-frame gathering and the set rules under it. The table is
// plain memory here: the work measured never touches the system.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "table.h"
#include "zantrel.h"

namespace {

// A full scene: 24 overlays spread over the global, one channel's and one
// stream's set, with mixed priorities, types and legacy flags.
struct Scene {
  std::unique_ptr<overlay_table> table = std::make_unique<overlay_table>();
  overlay_stream_table stream{};

  Scene() {
    std::memset(table.get(), 0, sizeof(overlay_table));
    std::memset(table->source_handles, 0xFF, 144);
    std::memset(stream.handles, 0xFF, sizeof stream.handles);
    stream.active = 1;
    for (int i = 0; i < 24; ++i) {
      overlay_entry_data data{};
      data.type = i % 3 == 0 ? OVERLAY_TYPE_PLAIN : OVERLAY_TYPE_TEXT;
      data.description.ovl.priority = (i * 7) % 11;
      data.description.ovl.legacy = i % 5 == 0 ? 1 : 0;
      int handle = overlay_table_create_overlay(table.get(), &data);
      if (i < 8) {
        overlay_table_add_overlay_globally(table.get(), handle);
      } else if (i < 16) {
        overlay_table_add_overlay_to_channel(table.get(), handle, 3);
      } else {
        zantrel::table::_add_handle_to_array(table.get(), handle - 1, stream.handles);
      }
    }
  }
};

void BM_GetEntries(benchmark::State& state) {
  Scene scene;
  overlay_table_entry entries[8];
  int32_t handles[8];
  auto filter = static_cast<unsigned>(state.range(0));
  for (auto _ : state) {
    overlay_table_get_entries(scene.table.get(), &scene.stream, entries, handles, 3, 0, filter);
    benchmark::DoNotOptimize(handles);
    benchmark::ClobberMemory();
  }
}
// 7 admits everything; 2 filters out the plain and legacy members, which
// re-sorts the sets every call.
BENCHMARK(BM_GetEntries)->Arg(7)->Arg(2);

void BM_AddRemoveGlobal(benchmark::State& state) {
  Scene scene;
  overlay_table* table = scene.table.get();
  overlay_table_remove_overlay_globally(table, 1);
  for (auto _ : state) {
    overlay_table_add_overlay_globally(table, 1);
    overlay_table_remove_overlay_globally(table, 1);
  }
}
BENCHMARK(BM_AddRemoveGlobal);

}  // namespace

BENCHMARK_MAIN();
