// Command line of zantrel-vcam.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace vcam {

struct StreamSize {
  uint32_t width = 0;
  uint32_t height = 0;
};

struct Options {
  int seconds = 10;
  std::vector<StreamSize> streams{{1920, 1080}, {1280, 720}, {640, 360}};
  std::string out_dir = "out";
  bool help = false;
  // A long run that shows the processes stay flat: an hour unless --seconds
  // says otherwise, with scene changes every few seconds.
  bool soak = false;
  // Live: the encoder runs at the real frame rate until stopped, writing
  // each stream's picture once a second; the scene only with demo.
  bool serve = false;
  bool demo = false;
  bool log_stderr = true;  // ZANTREL_LOG_STDERR=1 for the camera's processes
  std::string y4m;         // live video of one stream: a path, "-" for stdout, empty for none
  size_t y4m_stream = 0;
};

// What a person typed wrong; main prints it with the usage and exits with 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The encoder keeps one stream context per stream; the camera has no more.
inline constexpr size_t kMaxStreams = 8;
inline constexpr int kMaxSeconds = 3600;
inline constexpr int kSoakSeconds = 3600;
inline constexpr int kMaxSoakSeconds = 7 * 24 * 3600;

Options parse_options(int argc, char** argv);
// "WxH[,WxH...]" with every side even and at least 16 pixels.
std::vector<StreamSize> parse_streams(const std::string& text);
std::string usage_text();
std::string to_string(StreamSize size);

}  // namespace vcam
