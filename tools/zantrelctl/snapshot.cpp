#include "commands.h"

#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "camsim.h"
#include "options.h"
#include "tokenfill.h"
#include "zantrel.h"

namespace zantrelctl {
namespace {

struct Options {
  long stream = -1;
  long channel = 0;
  long width = 0;
  long height = 0;
  const char* output = nullptr;
};

int usage() {
  std::fputs(
      "usage: zantrelctl snapshot --stream N --size WxH [--channel C] -o OUT.png\n"
      "  Composes what stream N of channel C (default 0) shows now, at WxH pixels, as\n"
      "  an encoder would, in a stream context of its own; a running encoder is not\n"
      "  disturbed. Needs a running overlay system on the simulated driver\n"
      "  (zantrel-vcam --serve).\n"
      "  A scrolling text is shown at its start: how far it has scrolled is kept in\n"
      "  the running encoder's own stream context, which another process cannot see.\n"
      "  For the running encoder's own pictures, kill -USR1 the zantrel-vcam --serve\n"
      "  (its pid is on its first line) and read OUT/streamN-WxH.png.\n",
      stderr);
  return 2;
}

bool parse_long(const char* text, long low, long high, long* value, char stop = '\0') {
  char* end = nullptr;
  errno = 0;
  *value = std::strtol(text, &end, 10);
  return errno == 0 && end != text && *end == stop && *value >= low && *value <= high;
}

bool parse(int argc, char** argv, Options* o) {
  using zantrel::tools::Option;
  auto number = [](long low, long high, long& out, const char* what) {
    return [=, &out](const char* value) -> std::optional<std::string> {
      if (parse_long(value, low, high, &out)) return std::nullopt;
      return std::string("bad ") + what + " \"" + value + "\": a number from " +
             std::to_string(low) + " to " + std::to_string(high);
    };
  };
  const std::array options{
      Option{"stream", 0, true, number(0, 255, o->stream, "stream")},
      Option{"channel", 0, true, number(0, OVERLAY_NBR_CHANNELS - 1, o->channel, "channel")},
      Option{"size", 0, true,
             [o](const char* value) -> std::optional<std::string> {
               const char* x = std::strchr(value, 'x');
               if (x == nullptr || !parse_long(value, 1, 8192, &o->width, 'x') ||
                   !parse_long(x + 1, 1, 8192, &o->height)) {
                 return std::string("bad size \"") + value + "\": WxH, sides from 1 to 8192";
               }
               return std::nullopt;
             }},
      Option{"output", 'o', true,
             [o](const char* value) -> std::optional<std::string> {
               o->output = value;
               return std::nullopt;
             }},
  };
  const zantrel::tools::Parsed parsed = zantrel::tools::parse_options(argc, argv, options);
  if (!parsed) {
    std::fprintf(stderr, "zantrelctl: %s\n", parsed.error.c_str());
    return false;
  }
  if (!parsed.operands.empty()) {
    std::fprintf(stderr, "zantrelctl: unexpected argument \"%s\"\n", parsed.operands.front());
    return false;
  }
  const char* missing = o->stream < 0 ? "--stream" : o->width == 0 ? "--size" : nullptr;
  if (missing == nullptr && o->output == nullptr) missing = "-o";
  if (missing != nullptr) {
    std::fprintf(stderr, "zantrelctl: snapshot needs %s\n", missing);
    return false;
  }
  return true;
}

int compose(const Options& o, int fd, const std::string& scratch) {
  constexpr uint32_t kAllOverlays =
      OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;
  overlay_stream_context* context = overlay_stream_context_create(
      fd, static_cast<unsigned>(o.channel), static_cast<unsigned>(o.stream), 0,
      static_cast<uint32_t>(o.width), static_cast<uint32_t>(o.height), kAllOverlays);
  tokenfill_context* expansion = tokenfill_init();
  if (context == nullptr || expansion == nullptr) {
    std::fputs("zantrelctl: cannot make a stream context\n", stderr);
    overlay_stream_context_destroy(context);
    tokenfill_exit(expansion);
    return -1;
  }
  // Local time, as the live encoder draws its clocks.
  expansion->use_local_time = 1;
  timeval now{};
  gettimeofday(&now, nullptr);
  const overlay_expansion_params params{expansion, &now};
  overlay_encreq request{};
  int drawn = overlay_setup_in_encreq(context, &request, &params);
  if (drawn == 0) {
    drawn = camsim_compose(request.overlay_ids, static_cast<int>(o.width),
                           static_cast<int>(o.height), scratch.c_str());
    if (drawn < 0) {
      std::fprintf(stderr, "zantrelctl: cannot write %s: %s\n", o.output, std::strerror(errno));
    }
  }
  overlay_stream_context_destroy(context);
  tokenfill_exit(expansion);
  return drawn;
}

}  // namespace

int snapshot_command(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) return usage();
  const int fd = overlay_attach(0);
  if (fd < 0) {
    std::fputs(
        "zantrelctl: no overlay system to look at: start its owner first, e.g. "
        "zantrel-vcam --serve\n",
        stderr);
    return 1;
  }
  // Written beside the output and renamed over it, so that a viewer watching
  // the file never reads half a picture.
  const std::string output = options.output;
  const size_t slash = output.rfind('/');
  const std::string scratch = output.substr(0, slash + 1) + "." +
                              output.substr(slash == std::string::npos ? 0 : slash + 1) + ".part";
  const int drawn = compose(options, fd, scratch);
  overlay_detach();
  if (drawn < 0 || rename(scratch.c_str(), output.c_str()) != 0) {
    if (drawn >= 0) {
      std::fprintf(stderr, "zantrelctl: cannot write %s: %s\n", output.c_str(),
                   std::strerror(errno));
    }
    unlink(scratch.c_str());
    return 1;
  }
  std::printf("stream %ld of channel %ld at %ldx%ld: %d overlays in %s\n", options.stream,
              options.channel, options.width, options.height, drawn, output.c_str());
  return 0;
}

}  // namespace zantrelctl
