#include "commands.h"

#include <cairo.h>
#include <getopt.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

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

bool parse_color(const char* name, overlay_color* color) {
  for (size_t i = 0; i < kColorNames.size(); ++i) {
    if (kColorNames[i] == name) {
      *color = static_cast<overlay_color>(i);
      return true;
    }
  }
  std::fprintf(stderr, "zantrelctl: unknown colour \"%s\"\n", name);
  return false;
}

bool parse_int(const char* text, long low, long high, long* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || *value < low || *value > high) {
    std::fprintf(stderr, "zantrelctl: \"%s\" is not a number from %ld to %ld\n", text, low, high);
    return false;
  }
  return true;
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
  enum {
    kSize = 1,
    kText,
    kOutline,
    kBackground,
    kLegacy,
    kExtraRows,
    kExtraColor,
    kFormat,
    kZoom
  };
  static const option kLong[] = {{"size", required_argument, nullptr, kSize},
                                 {"text-color", required_argument, nullptr, kText},
                                 {"outline-color", required_argument, nullptr, kOutline},
                                 {"background", required_argument, nullptr, kBackground},
                                 {"legacy", required_argument, nullptr, kLegacy},
                                 {"extra-rows", required_argument, nullptr, kExtraRows},
                                 {"extra-color", required_argument, nullptr, kExtraColor},
                                 {"format", required_argument, nullptr, kFormat},
                                 {"zoom", required_argument, nullptr, kZoom},
                                 {"output", required_argument, nullptr, 'o'},
                                 {nullptr, 0, nullptr, 0}};
  optind = 1;
  long value = 0;
  for (int c; (c = getopt_long(argc, argv, "o:", kLong, nullptr)) != -1;) {
    bool ok = true;
    switch (c) {
      case kSize:
        ok = parse_int(optarg, 1, 200, &value) && (o->size = static_cast<int>(value), true);
        break;
      case kText:
        ok = parse_color(optarg, &o->text);
        break;
      case kOutline:
        ok = parse_color(optarg, &o->outline);
        break;
      case kBackground:
        ok = parse_color(optarg, &o->background);
        break;
      case kExtraColor:
        ok = parse_color(optarg, &o->extra);
        break;
      case kLegacy:
        ok = parse_int(optarg, 1, 7680, &o->legacy_width);
        break;
      case kExtraRows:
        ok = parse_int(optarg, 0, 64, &value) && (o->extra_rows = static_cast<int>(value), true);
        break;
      case kZoom:
        ok = parse_int(optarg, 1, 16, &value) && (o->zoom = static_cast<int>(value), true);
        break;
      case kFormat:
        if (std::strcmp(optarg, "4bit") == 0) {
          o->format = OVERLAY_FORMAT_PALETTE_4BIT;
        } else if (std::strcmp(optarg, "8bit") == 0) {
          o->format = OVERLAY_FORMAT_PALETTE_8BIT;
        } else if (std::strcmp(optarg, "argb32") == 0) {
          o->format = OVERLAY_FORMAT_ARGB32;
        } else {
          std::fprintf(stderr, "zantrelctl: unknown format \"%s\"\n", optarg);
          ok = false;
        }
        break;
      case 'o':
        o->output = optarg;
        break;
      default:
        ok = false;
    }
    if (!ok) return false;
  }
  if (o->output == nullptr || optind != argc - 1) return false;
  o->content = unescape_newlines(argv[optind]);
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
