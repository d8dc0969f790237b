#include "commands.h"

#include <cairo.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "options.h"
#include "zantrel-base/cairo_ptr.h"
#include "zantrel.h"

namespace zantrelctl {
namespace {

constexpr std::array<std::string_view, 6> kColorNames = {
    "black", "white", "red", "transparent", "semi-transparent", "grey"};

struct Options {
  int size = 40;
  overlay_color text = OVERLAY_COLOR_WHITE;
  overlay_color outline = OVERLAY_COLOR_BLACK;
  overlay_color background = OVERLAY_COLOR_TRANSPARENT;
  overlay_color extra = OVERLAY_COLOR_TRANSPARENT;
  overlay_format format = OVERLAY_FORMAT_PALETTE_4BIT;
  long legacy_width = -1;  // -1: multi-line text
  int extra_rows = 0;
  int zoom = 1;
  const char* output = nullptr;
  std::string content;
};

int usage() {
  std::fputs(
      "usage: zantrelctl render-text [options] -o OUT.png TEXT\n"
      "  --size N            text size in pixels (default 40)\n"
      "  --text-color C      glyph fill (default white)\n"
      "  --outline-color C   glyph outline (default black)\n"
      "  --background C      background (default transparent)\n"
      "  --legacy WIDTH      one line in a band WIDTH pixels wide\n"
      "  --extra-rows N      rows below a legacy band (default 0)\n"
      "  --extra-color C     colour of those rows (default transparent)\n"
      "  --format F          4bit, 8bit or argb32 (default 4bit)\n"
      "  --zoom N            enlarge every pixel N times (default 1)\n"
      "colours: black white red transparent semi-transparent grey\n"
      "A backslash followed by n in TEXT starts a new line.\n",
      stderr);
  return 2;
}

// take functions for the parser: the value into out, or why not.
auto color(overlay_color& out) {
  return [&out](const char* name) -> std::optional<std::string> {
    for (size_t i = 0; i < kColorNames.size(); ++i) {
      if (kColorNames[i] == name) {
        out = static_cast<overlay_color>(i);
        return std::nullopt;
      }
    }
    return std::string("unknown colour \"") + name + "\"";
  };
}

template <typename T>
auto number(long low, long high, T& out) {
  return [low, high, &out](const char* text) -> std::optional<std::string> {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) {
      // Appended piece by piece: GCC 12 at -O3 on 32-bit targets mistakes a
      // literal added to a temporary string for an overlapping copy.
      std::string message = "\"";
      message.append(text).append("\" is not a number from ").append(std::to_string(low));
      message.append(" to ").append(std::to_string(high));
      return message;
    }
    out = static_cast<T>(value);
    return std::nullopt;
  };
}

std::string unescape_newlines(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
      out += '\n';
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool parse(int argc, char** argv, Options* o) {
  using zantrel::tools::Option;
  const std::array options{
      Option{"size", 0, true, number(1, 200, o->size)},
      Option{"text-color", 0, true, color(o->text)},
      Option{"outline-color", 0, true, color(o->outline)},
      Option{"background", 0, true, color(o->background)},
      Option{"legacy", 0, true, number(1, 7680, o->legacy_width)},
      Option{"extra-rows", 0, true, number(0, 64, o->extra_rows)},
      Option{"extra-color", 0, true, color(o->extra)},
      Option{"format", 0, true,
             [o](const char* name) -> std::optional<std::string> {
               if (std::strcmp(name, "4bit") == 0) {
                 o->format = OVERLAY_FORMAT_PALETTE_4BIT;
               } else if (std::strcmp(name, "8bit") == 0) {
                 o->format = OVERLAY_FORMAT_PALETTE_8BIT;
               } else if (std::strcmp(name, "argb32") == 0) {
                 o->format = OVERLAY_FORMAT_ARGB32;
               } else {
                 return std::string("unknown format \"") + name + "\"";
               }
               return std::nullopt;
             }},
      Option{"zoom", 0, true, number(1, 16, o->zoom)},
      Option{"output", 'o', true,
             [o](const char* path) -> std::optional<std::string> {
               o->output = path;
               return std::nullopt;
             }},
  };
  // getopt_long's own messages for an unknown option or a missing value, as
  // render-text has always printed them.
  const zantrel::tools::Parsed parsed =
      zantrel::tools::parse_options(argc, argv, options, {.getopt_messages = true});
  if (parsed.refused) std::fprintf(stderr, "zantrelctl: %s\n", parsed.error.c_str());
  if (!parsed || o->output == nullptr || parsed.operands.size() != 1) return false;
  o->content = unescape_newlines(parsed.operands.front());
  return true;
}

// The premultiplied ARGB colour of pixel x of a row of the buffer.
uint32_t pixel_color(const sized_buffer& buffer, const uint32_t* row, uint32_t x) {
  switch (buffer.format) {
    case OVERLAY_FORMAT_ARGB32:
      return row[x];
    case OVERLAY_FORMAT_PALETTE_8BIT:
      return static_palette[((row[x / 4] >> (x % 4 * 8)) & 0xFF) % OVERLAY_PALETTE_SIZE];
    default:
      return static_palette[(row[x / 8] >> (x % 8 * 4)) & 0xF];
  }
}

bool write_png(const sized_buffer& buffer, int zoom, const char* path) {
  const int width = static_cast<int>(buffer.width) * zoom;
  const int height = static_cast<int>(buffer.rows) * zoom;
  const zantrel::CairoSurfacePtr surface(
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    return false;
  }
  unsigned char* data = cairo_image_surface_get_data(surface.get());
  const int stride = cairo_image_surface_get_stride(surface.get());
  for (int y = 0; y < height; ++y) {
    const uint32_t* row = buffer.data + static_cast<size_t>(y / zoom) * buffer.stride;
    auto* out = reinterpret_cast<uint32_t*>(data + static_cast<size_t>(y) * stride);
    for (int x = 0; x < width; ++x) out[x] = pixel_color(buffer, row, x / zoom);
  }
  cairo_surface_mark_dirty(surface.get());
  return cairo_surface_write_to_png(surface.get(), path) == CAIRO_STATUS_SUCCESS;
}

sized_buffer render(render_text_context* context, const Options& o) {
  if (o.legacy_width > 0) {
    return render_text_buffer_legacy(context, o.content.c_str(), o.text, o.outline, o.background,
                                     o.extra, o.size, static_cast<uint32_t>(o.legacy_width),
                                     o.extra_rows);
  }
  char** lines = nullptr;
  int count = 0;
  if (split_into_lines(&lines, &count, o.content.c_str()) != 0) {
    std::fputs("zantrelctl: the text has more than 512 lines\n", stderr);
    return {};
  }
  sized_buffer result =
      render_text_buffer_multiline(context, lines, count, o.text, o.outline, o.background, o.size);
  for (int i = 0; i < count; ++i) free(lines[i]);
  free(lines);
  return result;
}

}  // namespace

int render_text_command(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) return usage();
  render_text_context* context = render_text_init(options.format);
  if (context == nullptr) {
    std::fputs("zantrelctl: cannot make a render context\n", stderr);
    return 1;
  }
  sized_buffer buffer = render(context, options);
  render_text_destroy(context);
  if (buffer.data == nullptr) {
    std::fputs("zantrelctl: rendering failed\n", stderr);
    return 1;
  }
  const bool written = write_png(buffer, options.zoom, options.output);
  std::printf("%ux%u pixels, text %ux%u, %u bytes\n", buffer.width, buffer.rows,
              buffer.content_width, buffer.content_height, sized_buffer_datalen(&buffer));
  free(buffer.data);
  if (!written) {
    std::fprintf(stderr, "zantrelctl: cannot write %s\n", options.output);
    return 1;
  }
  return 0;
}

}  // namespace zantrelctl
