#include "options.h"

#include <charconv>
#include <string_view>

namespace vcam {

namespace {

// The whole of text as a number in [low, high], or nothing.
bool parse_number(std::string_view text, long low, long high, long& value) {
  if (text.empty()) {
    return false;
  }
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && value >= low && value <= high;
}

StreamSize parse_size(std::string_view text) {
  const size_t x = text.find('x');
  long width = 0;
  long height = 0;
  // The encoder's pictures are 4:2:0, so odd sides do not exist; 16 keeps a
  // stream large enough for the smallest text the library draws.
  if (x == std::string_view::npos || !parse_number(text.substr(0, x), 16, 8192, width) ||
      !parse_number(text.substr(x + 1), 16, 8192, height) || width % 2 != 0 || height % 2 != 0) {
    throw UsageError("bad stream size \"" + std::string(text) +
                     "\": expected WxH, even sides from 16 to 8192");
  }
  return {static_cast<uint32_t>(width), static_cast<uint32_t>(height)};
}

}  // namespace

std::vector<StreamSize> parse_streams(const std::string& text) {
  std::vector<StreamSize> streams;
  std::string_view rest = text;
  while (true) {
    const size_t comma = rest.find(',');
    streams.push_back(parse_size(rest.substr(0, comma)));
    if (comma == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(comma + 1);
  }
  if (streams.size() > kMaxStreams) {
    throw UsageError("at most " + std::to_string(kMaxStreams) + " streams");
  }
  return streams;
}

std::string usage_text() {
  return "usage: zantrel-vcam [--soak] [--seconds N] [--streams WxH[,WxH...]] [--out DIR]\n"
         "       zantrel-vcam --serve [--demo] [--y4m FILE|- [--y4m-stream N]]\n"
         "                    [--streams WxH[,WxH...]] [--out DIR]\n"
         "  Runs the camera's overlay system on the simulated driver: an owner, an\n"
         "  application that builds a scene, and an encoder with one context per stream.\n"
         "  --seconds N   simulated seconds of video at 30 frames a second (default 10)\n"
         "  --streams     stream sizes on channel 0 (default 1920x1080,1280x720,640x360)\n"
         "  --out DIR     where the pictures go (default ./out)\n"
         "  --soak        a long run (default an hour, up to a week) with the scene\n"
         "                changing every 4 seconds; prints the processes' sizes,\n"
         "                descriptors and live hardware overlays at its start and end\n"
         "  --serve       live: the owner and the encoder run at 30 frames a second of\n"
         "                real time until Ctrl-C or SIGTERM, for programs started with\n"
         "                camsim-run; each stream's picture goes to DIR/streamN-WxH.png\n"
         "                within a second of a change and at once on SIGUSR1; a second\n"
         "                zantrel-vcam on the same machine refuses to start\n"
         "  --demo        with --serve: the scene too, changing every 4 seconds\n"
         "  --y4m FILE    with --serve: every frame of one stream as YUV4MPEG2 video;\n"
         "                - for standard output (zantrel-vcam --serve --y4m - | ffplay -)\n"
         "  --y4m-stream N  the stream of --y4m (default 0)\n"
         "  --no-log-stderr  leave libzantrel's messages to syslog; by default they also\n"
         "                go to standard error (ZANTREL_LOG_STDERR=1, unless already set)\n"
         "  A snapshot (zantrelctl snapshot) shows a scrolling text at its start; the\n"
         "  pictures written here show it where the encoder has it.\n";
}

std::string to_string(StreamSize size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

Options parse_options(int argc, char** argv) {
  Options options;
  long seconds = 0;
  long y4m_stream = -1;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      options.help = true;
      continue;
    }
    if (arg == "--soak" || arg == "--serve" || arg == "--demo") {
      (arg == "--soak" ? options.soak : arg == "--serve" ? options.serve : options.demo) = true;
      continue;
    }
    if (arg == "--no-log-stderr") {
      options.log_stderr = false;
      continue;
    }
    // Both "--name value" and "--name=value".
    std::string_view name = arg;
    std::string value;
    bool has_value = false;
    if (const size_t eq = arg.find('='); arg.starts_with("--") && eq != std::string_view::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      has_value = true;
    }
    if (name != "--seconds" && name != "--streams" && name != "--out" && name != "--y4m" &&
        name != "--y4m-stream") {
      throw UsageError("unknown argument \"" + std::string(arg) + "\"");
    }
    if (!has_value) {
      if (i + 1 >= argc) {
        throw UsageError(std::string(name) + " needs a value");
      }
      value = argv[++i];
    }
    if (name == "--seconds") {
      if (!parse_number(value, 1, kMaxSoakSeconds, seconds)) {
        throw UsageError("--seconds takes a whole number from 1 to " + std::to_string(kMaxSeconds) +
                         " (" + std::to_string(kMaxSoakSeconds) + " with --soak)");
      }
    } else if (name == "--streams") {
      options.streams = parse_streams(value);
    } else if (name == "--y4m") {
      if (value.empty()) {
        throw UsageError("--y4m needs a file, or - for standard output");
      }
      options.y4m = value;
    } else if (name == "--y4m-stream") {
      if (!parse_number(value, 0, static_cast<long>(kMaxStreams) - 1, y4m_stream)) {
        throw UsageError("--y4m-stream takes a stream number");
      }
    } else {
      if (value.empty()) {
        throw UsageError("--out needs a directory");
      }
      options.out_dir = value;
    }
  }
  if (options.serve && (options.soak || seconds > 0)) {
    throw UsageError("--serve runs until stopped: no --soak or --seconds");
  }
  if (!options.serve && (options.demo || !options.y4m.empty())) {
    throw UsageError("--demo and --y4m go with --serve");
  }
  if (y4m_stream >= 0 && options.y4m.empty()) {
    throw UsageError("--y4m-stream goes with --y4m");
  }
  if (y4m_stream >= static_cast<long>(options.streams.size())) {
    throw UsageError("--y4m-stream " + std::to_string(y4m_stream) + ": there are only " +
                     std::to_string(options.streams.size()) + " streams");
  }
  options.y4m_stream = y4m_stream < 0 ? 0 : static_cast<size_t>(y4m_stream);
  if (seconds > (options.soak ? kMaxSoakSeconds : kMaxSeconds)) {
    throw UsageError("--seconds takes a whole number from 1 to " + std::to_string(kMaxSeconds) +
                     " (" + std::to_string(kMaxSoakSeconds) + " with --soak)");
  }
  if (seconds > 0) {
    options.seconds = static_cast<int>(seconds);
  } else if (options.soak) {
    options.seconds = kSoakSeconds;
  }
  return options;
}

}  // namespace vcam
