#include "stream_picture.h"

#include <getopt.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "camsim.h"
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
  static const option kLong[] = {{"stream", required_argument, nullptr, 's'},
                                 {"size", required_argument, nullptr, 'z'},
                                 {"channel", required_argument, nullptr, 'c'},
                                 {"output", required_argument, nullptr, 'o'},
                                 {nullptr, 0, nullptr, 0}};
  optind = 1;
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, "o:", kLong, nullptr)) != -1;) {
    if (c == 's' && !parse_long(optarg, 0, 255, &o->stream)) {
      std::fprintf(stderr, "zantrelctl: bad stream \"%s\": a number from 0 to 255\n", optarg);
      return false;
    }
    if (c == 'c' && !parse_long(optarg, 0, OVERLAY_NBR_CHANNELS - 1, &o->channel)) {
      std::fprintf(stderr, "zantrelctl: bad channel \"%s\": a number from 0 to 15\n", optarg);
      return false;
    }
    if (c == 'z') {
      const char* x = std::strchr(optarg, 'x');
      if (x == nullptr || !parse_long(optarg, 1, 8192, &o->width, 'x') ||
          !parse_long(x + 1, 1, 8192, &o->height)) {
        std::fprintf(stderr, "zantrelctl: bad size \"%s\": WxH, sides from 1 to 8192\n", optarg);
        return false;
      }
    }
    if (c == 'o') {
      o->output = optarg;
    }
    if (c == '?') {
      std::fprintf(stderr, "zantrelctl: unknown option or missing value: %s\n", argv[optind - 1]);
      return false;
    }
  }
  if (optind != argc) {
    std::fprintf(stderr, "zantrelctl: unexpected argument \"%s\"\n", argv[optind]);
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

// The request of one encoder frame for the stream, made now; the picture is
// composed before the context ends, since its per-stream copies go with it.
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
