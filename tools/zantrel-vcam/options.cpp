#include "options.h"

#include <array>
#include <charconv>
#include <optional>
#include <string_view>

// The tools' shared parser, beside this tool's options.h of the same name.
#include "../common/options.h"

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

std::string seconds_error() {
  return "--seconds takes a whole number from 1 to " + std::to_string(kMaxSeconds) + " (" +
         std::to_string(kMaxSoakSeconds) + " with --soak)";
}

// take functions for the shared parser: a flag sets out to value; a value
// goes to out whole, and an empty one is refused with the message empty.
auto flag(bool& out, bool value) {
  return [&out, value](const char*) -> std::optional<std::string> {
    out = value;
    return std::nullopt;
  };
}

auto nonempty_text(std::string& out, const char* empty) {
  return [&out, empty](const char* value) -> std::optional<std::string> {
    if (*value == '\0') {
      return empty;
    }
    out = value;
    return std::nullopt;
  };
}

// Every option with where its value goes; seconds and y4m_stream are checked
// against the others once all are read.
std::array<zantrel::tools::Option, 10> option_list(Options& options, long& seconds,
                                                   long& y4m_stream) {
  using zantrel::tools::Option;
  return {
      Option{"help", 'h', false, flag(options.help, true)},
      Option{"soak", 0, false, flag(options.soak, true)},
      Option{"serve", 0, false, flag(options.serve, true)},
      Option{"demo", 0, false, flag(options.demo, true)},
      Option{"no-log-stderr", 0, false, flag(options.log_stderr, false)},
      Option{"seconds", 0, true,
             [&seconds](const char* value) -> std::optional<std::string> {
               if (!parse_number(value, 1, kMaxSoakSeconds, seconds)) {
                 return seconds_error();
               }
               return std::nullopt;
             }},
      Option{"streams", 0, true,
             [&options](const char* value) -> std::optional<std::string> {
               try {
                 options.streams = parse_streams(value);
               } catch (const UsageError& error) {
                 return error.what();
               }
               return std::nullopt;
             }},
      Option{"out", 0, true, nonempty_text(options.out_dir, "--out needs a directory")},
      Option{"y4m", 0, true,
             nonempty_text(options.y4m, "--y4m needs a file, or - for standard output")},
      Option{"y4m-stream", 0, true,
             [&y4m_stream](const char* value) -> std::optional<std::string> {
               if (!parse_number(value, 0, static_cast<long>(kMaxStreams) - 1, y4m_stream)) {
                 return "--y4m-stream takes a stream number";
               }
               return std::nullopt;
             }},
  };
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
  const auto options_read = option_list(options, seconds, y4m_stream);
  // As before the shared parser: names in full, everything in order, and no
  // operands, not even after "--".
  const zantrel::tools::Parsed parsed = zantrel::tools::parse_options(
      argc, argv, options_read, {.exact = true, .options_first = true, .double_dash = false});
  const char* unknown = parsed.operands.empty() ? parsed.unknown : parsed.operands.front();
  if (unknown != nullptr) {
    throw UsageError("unknown argument \"" + std::string(unknown) + "\"");
  }
  if (!parsed) {
    throw UsageError(parsed.error);
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
    throw UsageError(seconds_error());
  }
  if (seconds > 0) {
    options.seconds = static_cast<int>(seconds);
  } else if (options.soak) {
    options.seconds = kSoakSeconds;
  }
  return options;
}

}  // namespace vcam
