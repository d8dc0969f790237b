// The encoder's calls over a camera's scene, for counting instructions with
// callgrind (bench/encoder-instructions.sh): three streams (1920x1080,
// 1280x720, 640x360) over a scalable clock, an ".ovl" logo, a scrolling
// ticker, a fixed scalable text and three boxes, which an application changes
// every 4 seconds (a new ticker sentence, a box moved, a box made again, a
// palette colour). Under callgrind every call of overlay_setup_in_encreq is
// dumped on its own, labelled; outside it the program just runs the scene.
//
//   encoder_scene scene     the 40 s of the scene above
//   encoder_scene streams   one box moved, seen by 16 streams of four sizes
//   encoder_scene longtext  a new 200-character ticker on a 720-line stream
//   encoder_scene quiet     frames of a stream with only a clock on it
//
// --bound N sets the contexts' work bound (overlay_stream_context_set_work_bound).
#include <sys/time.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else  // a build without valgrind's headers runs the scene without counting
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(label) (void)(label)
#define RUNNING_ON_VALGRIND 0
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "camsim.h"
#include "tokenfill.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel.h"

namespace {

constexpr uint32_t kAllFilters =
    OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "encoder_scene: %s\n", what);
  std::exit(1);
}

int checked(const char* what, int result) {
  if (result < 0) fail(what);
  return result;
}

// A 96x48 ARGB ".ovl" logo (header version 4) in a temporary file.
std::string write_logo() {
  char path[] = "/tmp/encoder_scene_logoXXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) fail("mkstemp");
  FILE* file = fdopen(fd, "wb");
  unsigned char header[78] = {'o', 'g', '4', 0, 0, 16, 96, 0, 48, 0};
  std::fwrite(header, sizeof header, 1, file);
  for (int y = 0; y < 48; ++y) {
    for (int x = 0; x < 96; ++x) {
      const uint32_t argb = 0xFF000000u | static_cast<uint32_t>(x * 2) << 16 |
                            static_cast<uint32_t>(y * 5) << 8 | 0x40u;
      std::fwrite(&argb, 4, 1, file);
    }
  }
  std::fclose(file);
  return path;
}

overlay_text text_record(const char* text, float x, float y, int size, int scroll) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.overlay.priority = 50;
  t.overlay.position = {x, y, 1, 1, OVERLAY_COORDS_NORMALIZED};
  t.font_size = size;
  t.scalable = 1;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.outline_color = OVERLAY_COLOR_BLACK;
  t.background_color = OVERLAY_COLOR_SEMI_TRANSPARENT;
  t.scroll_speed = scroll;
  return t;
}

overlay box_record(int index, float x) {
  overlay o{};
  o.priority = 20 + index;
  o.width = 128;
  o.height = 64;
  o.nbr_buffers = 1;
  o.format = OVERLAY_FORMAT_ARGB32;
  o.position = {x, 0.6F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  return o;
}

const char* const kSentences[] = {
    "Entrance camera: all doors closed, no motion in the last hour",
    "Delivery expected at gate 2 between 14:00 and 15:00 today",
    "Maintenance window tonight from 02:00, recording continues",
};

class Encoder {
 public:
  struct Size {
    uint32_t width, height;
  };
  Encoder(const std::vector<Size>& sizes, uint32_t bound) : expansion_(tokenfill_init()) {
    if (expansion_ == nullptr) fail("tokenfill_init");
    expansion_->use_local_time = 1;  // as a camera shows its time
    params_ = {expansion_, &now_};
    for (const Size& size : sizes) {
      overlay_stream_context* context =
          overlay_stream_context_create(o_get_fd(), 0, static_cast<unsigned>(contexts_.size()), 0,
                                        size.width, size.height, kAllFilters);
      if (context == nullptr) fail("overlay_stream_context_create");
      if (bound != kUnset) overlay_stream_context_set_work_bound(context, bound);
      contexts_.push_back(context);
    }
    requests_.resize(contexts_.size());
  }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  ~Encoder() {
    for (overlay_stream_context* context : contexts_) overlay_stream_context_destroy(context);
    tokenfill_exit(expansion_);
  }

  // One frame at frame number `frame` (30 a second): every stream's call,
  // each dumped under its own label when callgrind runs the program.
  // Whether the last frame changed any request: an id or the version.
  bool changed() const { return changed_; }

  void frame(int frame) {
    changed_ = false;
    now_.tv_sec = 1795348800 + frame / 30;
    now_.tv_usec = static_cast<suseconds_t>(frame % 30) * 1000000 / 30;
    for (size_t s = 0; s < contexts_.size(); ++s) {
      const overlay_encreq before = requests_[s];
      CALLGRIND_ZERO_STATS;
      overlay_setup_in_encreq(contexts_[s], &requests_[s], &params_);
      changed_ = changed_ || std::memcmp(&before, &requests_[s], sizeof before) != 0;
      const std::string label = "frame " + std::to_string(frame) + " stream " + std::to_string(s) +
                                " " + std::to_string(requests_[s].version);
      CALLGRIND_DUMP_STATS_AT(label.c_str());
    }
  }

  static constexpr uint32_t kUnset = 0xFFFFFFFFu;

 private:
  tokenfill_context* expansion_;
  timeval now_{1795348800, 0};
  overlay_expansion_params params_{};
  std::vector<overlay_stream_context*> contexts_;
  std::vector<overlay_encreq> requests_;
  bool changed_ = false;
};

// Reports, outside callgrind, how many frames after a change the requests
// last changed: the frames the work of the change was spread over.
class Settling {
 public:
  void change(int frame) {
    report();
    change_ = frame;
    last_ = frame;
  }
  void frame(int frame, bool changed) {
    if (changed && frame - change_ < 30) last_ = frame;
  }
  void report() const {
    if (change_ >= 0 && !RUNNING_ON_VALGRIND) {
      std::printf("change at frame %d settled after %d frames\n", change_, last_ - change_ + 1);
    }
  }

 private:
  int change_ = -1;
  int last_ = -1;
};

class Scene {
 public:
  Scene() : logo_path_(write_logo()) {
    clock_ = text_record("#D #T", 0.02F, 0.03F, 40, 0);
    checked("clock", overlay_add_globally(checked("clock", overlay_text_create(&clock_))));
    ticker_ = text_record(kSentences[0], 0.0F, 0.12F, 32, 10);
    ticker_handle_ = checked("ticker", overlay_text_create(&ticker_));
    checked("ticker", overlay_add_globally(ticker_handle_));
    overlay_text fixed = text_record("Camera 1 - Entrance hall", 0.02F, 0.9F, 36, 0);
    checked("fixed", overlay_add_globally(checked("fixed", overlay_text_create(&fixed))));
    overlay_image logo{};
    logo.overlay.priority = 40;
    logo.overlay.position = {0.85F, 0.03F, 1, 1, OVERLAY_COORDS_NORMALIZED};
    std::snprintf(logo.path, sizeof logo.path, "%s", logo_path_.c_str());
    checked("logo", overlay_add_globally(checked("logo", overlay_image_create(&logo))));
    for (int i = 0; i < 3; ++i) {
      boxes_[i] = box_record(i, 0.1F + 0.25F * static_cast<float>(i));
      handles_[i] = checked("box", overlay_create(&boxes_[i]));
      checked("box", overlay_add_to_stream(handles_[i], 0, i));
    }
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  ~Scene() { std::remove(logo_path_.c_str()); }

  // The change of the scene's n-th 4 seconds.
  void change(int n) {
    switch (n % 4) {
      case 0:
        ticker_ = text_record(kSentences[(n / 4 + 1) % 3], 0.0F, 0.12F, 32, 10);
        checked("ticker update", overlay_text_update(ticker_handle_, &ticker_));
        break;
      case 1:
        move_box();
        break;
      case 2:
        checked("box destroy", overlay_destroy(handles_[2]));
        handles_[2] = checked("box", overlay_create(&boxes_[2]));
        checked("box", overlay_add_to_stream(handles_[2], 0, 2));
        break;
      default: {
        const overlay_palette_color green{0xFF, 0x20, static_cast<uint8_t>(0x80 + n), 0x20, 0};
        checked("palette", overlay_palette_set_color(&green, 15));
      }
    }
  }
  void move_box() {
    boxes_[1].position.x = boxes_[1].position.x < 0.5F ? 0.6F : 0.35F;
    checked("box move", overlay_update(handles_[1], &boxes_[1]));
  }
  void new_ticker(const char* text) {
    ticker_ = text_record(text, 0.0F, 0.12F, 32, 10);
    checked("ticker update", overlay_text_update(ticker_handle_, &ticker_));
  }

 private:
  std::string logo_path_;
  overlay_text clock_{};
  overlay_text ticker_{};
  int ticker_handle_ = 0;
  overlay boxes_[3]{};
  int handles_[3]{};
};

}  // namespace

int main(int argc, char** argv) {
  if (!zantrel::private_dev_shm()) fail("a private /dev/shm");
  const std::string mode = argc > 1 ? argv[1] : "scene";
  uint32_t bound = Encoder::kUnset;
  if (argc > 3 && std::strcmp(argv[2], "--bound") == 0) {
    bound = static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10));
  }
  if (camsim_reset() != 0 || overlay_init(0) <= 0) fail("no simulated driver or table");
  {
    if (mode == "quiet") {
      overlay_text clock = text_record("#D #T", 0.02F, 0.03F, 40, 0);
      checked("clock", overlay_add_globally(checked("clock", overlay_text_create(&clock))));
      Encoder encoder({{1280, 720}}, bound);
      for (int frame = 0; frame < 90; ++frame) encoder.frame(frame);
    } else {
      Scene scene;
      if (mode == "scene") {
        Encoder encoder({{1920, 1080}, {1280, 720}, {640, 360}}, bound);
        Settling settling;
        settling.change(0);
        for (int frame = 0; frame < 1200; ++frame) {
          // Changes come half way through a second, apart from the clock's ticks.
          if (frame > 15 && frame % 120 == 15) {
            scene.change(frame / 120 - 1);
            settling.change(frame);
          }
          encoder.frame(frame);
          settling.frame(frame, encoder.changed());
        }
        settling.report();
      } else if (mode == "streams") {
        std::vector<Encoder::Size> sizes;
        for (int i = 0; i < 4; ++i) {
          for (Encoder::Size size : {Encoder::Size{1920, 1080}, Encoder::Size{1280, 720},
                                     Encoder::Size{640, 360}, Encoder::Size{320, 240}}) {
            sizes.push_back(size);
          }
        }
        Encoder encoder(sizes, bound);
        for (int frame = 0; frame < 60; ++frame) {
          if (frame == 45) scene.move_box();
          encoder.frame(frame);
        }
      } else if (mode == "longtext") {
        Encoder encoder({{1280, 720}}, bound);
        Settling settling;
        std::string text;
        while (text.size() < 200) text += "Long notice: the north gate closes early today. ";
        text.resize(200);
        for (int frame = 0; frame < 60; ++frame) {
          if (frame == 45) {
            scene.new_ticker(text.c_str());
            settling.change(frame);
          }
          encoder.frame(frame);
          settling.frame(frame, encoder.changed());
        }
        settling.report();
      } else {
        fail("modes: scene, streams, longtext, quiet");
      }
    }
  }
  overlay_deinit();
  return 0;
}
