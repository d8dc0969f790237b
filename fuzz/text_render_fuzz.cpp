// Fuzzes the two text renderers with arbitrary text bytes (any UTF-8 or not,
// any number of lines), sizes, colours outside the named six, legacy widths
// and extra rows, in the three formats a renderer takes. A rendering either
// fails with an empty record or gives a buffer whose geometry holds together:
// whole 16-pixel groups, rows of whole words, content inside the buffer.
//
// Input: format, size (2 bytes), four colours, legacy width (2 bytes), extra
// rows, then the text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zantrel.h"

namespace {

constexpr std::size_t kHeader = 10;
constexpr overlay_format kFormats[] = {OVERLAY_FORMAT_PALETTE_4BIT, OVERLAY_FORMAT_ARGB32,
                                       OVERLAY_FORMAT_PALETTE_8BIT};
constexpr std::size_t kFormatCount = sizeof kFormats / sizeof kFormats[0];
// Made once and kept to the end: cairo keeps what a destroyed context drew
// with in caches of its own, which a leak check at exit would count.
render_text_context* contexts[kFormatCount];

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "text_render_fuzz: %s\n", what);
  std::abort();
}

void check_buffer(sized_buffer& buffer, overlay_format format, bool legacy, uint32_t width) {
  if (buffer.data == nullptr) {
    if (buffer.width != 0 || buffer.rows != 0 || buffer.stride != 0) {
      fail("a failed rendering left a geometry behind");
    }
    return;
  }
  const uint32_t pixels_per_word = format == OVERLAY_FORMAT_ARGB32         ? 1
                                   : format == OVERLAY_FORMAT_PALETTE_8BIT ? 4
                                                                           : 8;
  if (buffer.format != format || buffer.width % 16 != 0 ||
      buffer.stride != buffer.width / pixels_per_word || buffer.rows != buffer.height ||
      sized_buffer_datalen(&buffer) != buffer.stride * buffer.rows * 4 ||
      buffer.content_width > buffer.width || (legacy && buffer.content_width != width)) {
    fail("a rendered buffer's geometry does not hold together");
  }
  // Every word of the buffer is written or cleared: reading them all lets
  // the sanitizers see an overrun or an uninitialised word.
  uint32_t sum = 0;
  for (uint64_t i = 0; i < uint64_t{buffer.stride} * buffer.rows; ++i) sum += buffer.data[i];
  asm volatile("" : : "r"(sum));
  free(buffer.data);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  for (std::size_t i = 0; i < kFormatCount; ++i) {
    contexts[i] = render_text_init(kFormats[i]);
    if (contexts[i] == nullptr) fail("no render context (is the font installed?)");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeader) return 0;
  const std::size_t which = data[0] % kFormatCount;
  // Sizes from -1535 to 1535: negative, zero and glyphs larger than any
  // stream, without spending the run on one huge glyph.
  const int text_size = static_cast<int16_t>(data[1] | data[2] << 8) % 1536;
  const auto color = [&](int i) {
    return static_cast<overlay_color>(static_cast<int8_t>(data[i]));
  };
  const uint32_t width = data[7] | data[8] << 8;
  const int extra_rows = static_cast<int8_t>(data[9]);
  const std::string text(reinterpret_cast<const char*>(data) + kHeader, size - kHeader);

  render_text_context* context = contexts[which];
  if (data[0] & 0x80) {
    sized_buffer buffer =
        render_text_buffer_legacy(context, text.c_str(), color(3), color(4), color(5), color(6),
                                  text_size, width, extra_rows);
    check_buffer(buffer, kFormats[which], true, width);
    return 0;
  }
  char** lines = nullptr;
  int count = 0;
  if (split_into_lines(&lines, &count, text.c_str()) == 0) {
    sized_buffer buffer = render_text_buffer_multiline(context, lines, count, color(3), color(4),
                                                       color(5), text_size);
    check_buffer(buffer, kFormats[which], false, 0);
    for (int i = 0; i < count; ++i) free(lines[i]);
  }
  free(lines);
  return 0;
}
