// Text rendering speed: a clock text re-rendered from the glyph cache, the
// same text drawn from an empty cache, the per-pixel colour match, the
// unaligned word copy, and the memory the cache holds per glyph.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "render.h"

namespace {

constexpr const char* kClock = "2026-11-22 12:34:56";

sized_buffer render_clock(render_text_context* context) {
  char line[32];
  std::snprintf(line, sizeof line, "%s", kClock);
  char* lines[] = {line};
  return render_text_buffer_multiline(context, lines, 1, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_BLACK,
                                      OVERLAY_COLOR_TRANSPARENT, 40);
}

void BM_ClockWarmCache(benchmark::State& state) {
  render_text_context* context = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
  free(render_clock(context).data);
  for (auto _ : state) {
    sized_buffer b = render_clock(context);
    benchmark::DoNotOptimize(b.data);
    free(b.data);
  }
  render_text_destroy(context);
}
BENCHMARK(BM_ClockWarmCache);

void BM_ClockEmptyCache(benchmark::State& state) {
  render_text_context* context = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
  free(render_clock(context).data);
  for (auto _ : state) {
    zantrel::render::empty_glyph_cache(context);
    sized_buffer b = render_clock(context);
    benchmark::DoNotOptimize(b.data);
    free(b.data);
  }
  render_text_destroy(context);
}
BENCHMARK(BM_ClockEmptyCache);

// A context's first rendering also opens the font.
void BM_ClockNewContext(benchmark::State& state) {
  for (auto _ : state) {
    render_text_context* context = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
    sized_buffer b = render_clock(context);
    benchmark::DoNotOptimize(b.data);
    free(b.data);
    render_text_destroy(context);
  }
}
BENCHMARK(BM_ClockNewContext);

void BM_NearestColourPerPixel(benchmark::State& state) {
  constexpr uint32_t kWidth = 64, kHeight = 64;
  std::vector<uint32_t> pixels(kWidth * kHeight);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint32_t>(i * 2654435761u);
  for (auto _ : state) {
    sized_buffer* b = zantrel::render::convert_glyph_surface(
        reinterpret_cast<const uint8_t*>(pixels.data()), kWidth, kHeight, kWidth * 4,
        OVERLAY_FORMAT_PALETTE_4BIT);
    benchmark::DoNotOptimize(b->data);
    zantrel::render::sized_buffer_free(b);
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_NearestColourPerPixel);

void BM_UnalignedCopyPerWord(benchmark::State& state) {
  std::vector<uint32_t> source_words(4 * 32, 0x12345678), destination_words(40 * 64);
  sized_buffer source{4, 32, 32, 32, 0, 0, source_words.data(), OVERLAY_FORMAT_PALETTE_4BIT};
  sized_buffer destination{
      40, 64, 320, 64, 0, 0, destination_words.data(), OVERLAY_FORMAT_PALETTE_4BIT};
  for (auto _ : state) {
    zantrel::render::blit_sized_buffer(&destination, &source, 13, 5);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * source_words.size());
}
BENCHMARK(BM_UnalignedCopyPerWord);

// Not a speed: the bytes one cached glyph holds at size 40 (entry, image
// record and pixels), reported as a counter.
void BM_CacheBytesPerGlyph(benchmark::State& state) {
  render_text_context* context = render_text_init(OVERLAY_FORMAT_PALETTE_4BIT);
  free(render_clock(context).data);
  for (auto _ : state) benchmark::DoNotOptimize(context->glyph_cache);
  size_t bytes = 0;
  GHashTableIter iter;
  gpointer key, value;
  g_hash_table_iter_init(&iter, context->glyph_cache);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    auto* entry = static_cast<glyph_cache_entry*>(value);
    bytes += sizeof(*entry) + sizeof(sized_buffer) + sized_buffer_datalen(entry->image);
  }
  state.counters["glyphs"] = g_hash_table_size(context->glyph_cache);
  state.counters["bytes_per_glyph"] =
      static_cast<double>(bytes) / g_hash_table_size(context->glyph_cache);
  render_text_destroy(context);
}
BENCHMARK(BM_CacheBytesPerGlyph)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
