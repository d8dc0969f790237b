#include "scene.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <span>
#include <stdexcept>

#include "ipc.h"
#include "scene_layout.h"
#include "scene_pixels.h"
#include "session.h"
#include "zantrel-base/mapping.h"
#include "zantrel.h"

extern char** environ;

namespace vcam {

namespace {

namespace L = layout;

class Interrupted : public std::exception {};

void stop_point() {
  if (signals::stop_requested()) {
    throw Interrupted();
  }
}

int check(const char* what, int result) {
  if (result < 0) {
    throw std::runtime_error(std::string(what) + " returned " + std::to_string(result));
  }
  return result;
}

// A creation's result: a handle from 1 up; 0 (an image whose time could not
// be read) made nothing either.
int check_handle(const char* what, int result) {
  if (result < 1) {
    throw std::runtime_error(std::string(what) + " returned " + std::to_string(result));
  }
  return result;
}

// One overlay buffer of the device mapped into this process.
// The buffer cycle of a plain overlay: get a free buffer, paint it, submit.
void paint_overlay(int handle, uint32_t buffer_size,
                   const std::function<void(std::span<uint8_t>)>& paint) {
  int32_t offset = 0;
  check("overlay_get_buffer", overlay_get_buffer(handle, &offset));
  {
    const zantrel::Mapping buffer(o_get_fd(), buffer_size, PROT_READ | PROT_WRITE, offset);
    if (!buffer) {
      throw std::runtime_error(std::string("mmap of an overlay buffer: ") + std::strerror(errno));
    }
    paint(buffer.span());
  }
  check("overlay_submit_buffer", overlay_submit_buffer(handle, offset, 0));
}

// Runs ovlconv to turn the logo into an ".ovl" file. ovlconv gets the
// default signal actions, so Ctrl-C ends it as well.
void convert_logo(const std::string& ovlconv, const std::string& png, const std::string& ovl) {
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int signal : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD}) {
    sigaddset(&defaults, signal);
  }
  sigset_t empty;
  sigemptyset(&empty);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setsigmask(&attr, &empty);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  std::vector<std::string> args{ovlconv, "to-ovl", png, ovl};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  pid_t pid = -1;
  const bool bare = ovlconv.find('/') == std::string::npos;
  const int error = bare ? posix_spawnp(&pid, ovlconv.c_str(), nullptr, &attr, argv.data(), environ)
                         : posix_spawn(&pid, ovlconv.c_str(), nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (error != 0) {
    throw std::runtime_error("cannot run " + ovlconv + ": " + std::strerror(error));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  stop_point();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(ovlconv + " could not convert " + png);
  }
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

overlay_position normalized(float x, float y) {
  return {x, y, 1.0f, 1.0f, OVERLAY_COORDS_NORMALIZED};
}

overlay_position pixels(float x, float y) { return {x, y, 1.0f, 1.0f, 0}; }

struct TextStyle {
  int32_t font_size;
  overlay_color text;
  overlay_color background;
  overlay_color outline;
  int32_t scalable = 1;
  int32_t scroll_speed = 0;
  uint32_t legacy = 0;
};

overlay_text make_text(const char* text, int32_t priority, overlay_position position,
                       const TextStyle& style) {
  overlay_text t{};
  t.overlay.priority = priority;
  t.overlay.position = position;
  t.overlay.legacy = style.legacy;
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.font_size = style.font_size;
  t.scalable = style.scalable;
  t.text_color = style.text;
  t.background_color = style.background;
  t.outline_color = style.outline;
  t.scroll_speed = style.scroll_speed;
  return t;
}

overlay_image make_image(const std::string& path, int32_t priority, overlay_position position) {
  overlay_image image{};
  image.overlay.priority = priority;
  image.overlay.position = position;
  if (path.size() >= sizeof image.path) {
    throw std::runtime_error("path too long for an image overlay: " + path);
  }
  std::snprintf(image.path, sizeof image.path, "%s", path.c_str());
  return image;
}

overlay make_plain(uint32_t width, uint32_t height, overlay_format format, int32_t priority,
                   overlay_position position, uint32_t buffers) {
  overlay ovl{};
  ovl.priority = priority;
  ovl.width = width;
  ovl.height = height;
  ovl.format = format;
  ovl.nbr_buffers = buffers;
  ovl.position = position;
  return ovl;
}

class Scene {
 public:
  explicit Scene(const SceneConfig& config) : config_(config) {}
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;
  ~Scene() {
    // Newest first, so nothing refers to an overlay already gone.
    // (Clang 14 cannot read libstdc++ 12's std::views::reverse.)
    // NOLINTNEXTLINE(modernize-loop-convert)
    for (auto it = owned_.rbegin(); it != owned_.rend(); ++it) {
      if (it->destroy(it->handle) < 0) {
        std::fprintf(stderr, "zantrel-vcam: application: could not destroy overlay %d\n",
                     it->handle);
      }
    }
  }

  void build() {
    const TextStyle clock_style{L::kClockFontSize, OVERLAY_COLOR_WHITE,
                                OVERLAY_COLOR_SEMI_TRANSPARENT, OVERLAY_COLOR_BLACK};
    overlay_text clock = make_text(L::kClockText, L::kClockPriority,
                                   normalized(L::kClockX, L::kClockY), clock_style);
    const int clock_handle =
        keep_text(check_handle("overlay_text_create(clock)", overlay_text_create(&clock)));
    check("overlay_add_globally(clock)", overlay_add_globally(clock_handle));
    stop_point();

    const std::string ovl = config_.work_dir + "/logo.ovl";
    convert_logo(config_.ovlconv, config_.logo_png, ovl);
    overlay_image logo = make_image(ovl, L::kLogoPriority, normalized(L::kLogoX, L::kLogoY));
    const int logo_handle =
        keep_image(check_handle("overlay_image_create(logo)", overlay_image_create(&logo)));
    check("overlay_add_globally(logo)", overlay_add_globally(logo_handle));
    stop_point();

    TextStyle ticker_style{L::kTickerFontSize, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_SEMI_TRANSPARENT,
                           OVERLAY_COLOR_BLACK};
    ticker_style.scroll_speed = L::kTickerSpeed;
    ticker_ =
        make_text(L::kTickerText, L::kTickerPriority, normalized(0.0f, L::kTickerY), ticker_style);
    ticker_handle_ =
        keep_text(check_handle("overlay_text_create(ticker)", overlay_text_create(&ticker_)));
    check("overlay_add_to_channel(ticker)", overlay_add_to_channel(ticker_handle_, L::kChannel));
    stop_point();

    TextStyle band_style{L::kBandFontSize, OVERLAY_COLOR_WHITE, OVERLAY_COLOR_SEMI_TRANSPARENT,
                         OVERLAY_COLOR_BLACK};
    band_style.scalable = 0;
    band_style.legacy = 1;
    band_ = make_text(L::kBandText, L::kBandPriority, normalized(0.0f, L::kBandY), band_style);
    band_handle_ =
        keep_text(check_handle("overlay_text_create(band)", overlay_text_create(&band_)));
    check("overlay_add_to_channel(band)", overlay_add_to_channel(band_handle_, L::kChannel));
    stop_point();

    // The scalable image reads its bitmap at every gathering, so the
    // directory stays until the encoder is gone (the supervisor removes it).
    const std::string bitmap_dir = config_.work_dir + "/scalable";
    if (mkdir(bitmap_dir.c_str(), 0700) != 0 && errno != EEXIST) {
      throw std::runtime_error("cannot make " + bitmap_dir + ": " + std::strerror(errno));
    }
    write_file(bitmap_dir + "/bmp", make_test_bitmap(L::kBitmapWidth, L::kBitmapHeight));
    overlay_image bitmap =
        make_image(bitmap_dir, L::kBitmapPriority, normalized(L::kBitmapX, L::kBitmapY));
    const int bitmap_handle =
        keep_image(check_handle("overlay_image_create(bitmap)", overlay_image_create(&bitmap)));
    for (size_t stream = 0; stream < config_.streams.size(); ++stream) {
      check("overlay_add_to_stream(bitmap)",
            overlay_add_to_stream(bitmap_handle, 0, static_cast<int>(stream)));
    }
    stop_point();

    plain_ = make_plain(L::kPlainWidth, L::kPlainHeight, OVERLAY_FORMAT_ARGB32,
                        L::kStreamOverlayPriority, pixels(L::kPlainX, L::kPlainY), 2);
    plain_handle_ = keep_plain(check_handle("overlay_create(plain)", overlay_create(&plain_)));
    paint_plain(L::kPlainColor);
    add_to_stream_if_present(plain_handle_, L::kPlainStream, "plain");
    stop_point();

    overlay swatches =
        make_plain(L::kSwatchWidth, L::kSwatchHeight, OVERLAY_FORMAT_PALETTE_4BIT_DUAL,
                   L::kStreamOverlayPriority, normalized(L::kSwatchX, L::kSwatchY), 1);
    const int swatch_handle =
        keep_plain(check_handle("overlay_create(swatches)", overlay_create(&swatches)));
    paint_overlay(swatch_handle, swatches.buffer_size, [](std::span<uint8_t> buffer) {
      paint_swatches(buffer, L::kSwatchWidth, L::kSwatchHeight, L::kSwatchCellWidth);
    });
    add_to_stream_if_present(swatch_handle, L::kSwatchStream, "swatches");
    stop_point();

    add_rec();
  }

  // The first change, and every other one after it, makes the changed
  // scene; the others make the first scene again (soak runs).
  void change() {
    if (++changes_ % 2 == 1) {
      change_scene();
    } else {
      restore_scene();
    }
  }

 private:
  // New texts for the band and the ticker, the plain overlay painted again
  // and moved, a user palette colour, and the recording badge gone.
  void change_scene() {
    std::snprintf(band_.text, sizeof band_.text, "%s", L::kBandTextAfter);
    check("overlay_text_update(band)", overlay_text_update(band_handle_, &band_));
    std::snprintf(ticker_.text, sizeof ticker_.text, "%s", L::kTickerTextAfter);
    check("overlay_text_update(ticker)", overlay_text_update(ticker_handle_, &ticker_));

    paint_plain(L::kPlainColorAfter);
    plain_.position = pixels(L::kPlainMovedX, L::kPlainMovedY);
    check("overlay_update(plain)", overlay_update(plain_handle_, &plain_));

    const overlay_palette_color green{0xFF, (L::kChangedColor >> 16) & 0xFF,
                                      (L::kChangedColor >> 8) & 0xFF, L::kChangedColor & 0xFF, 0};
    check("overlay_palette_set_color", overlay_palette_set_color(&green, L::kChangedIndex));

    check("overlay_text_destroy(rec)", overlay_text_destroy(rec_handle_));
    std::erase_if(owned_, [this](const Owned& owned) { return owned.handle == rec_handle_; });
  }

  void restore_scene() {
    std::snprintf(band_.text, sizeof band_.text, "%s", L::kBandText);
    check("overlay_text_update(band)", overlay_text_update(band_handle_, &band_));
    std::snprintf(ticker_.text, sizeof ticker_.text, "%s", L::kTickerText);
    check("overlay_text_update(ticker)", overlay_text_update(ticker_handle_, &ticker_));

    paint_plain(L::kPlainColor);
    plain_.position = pixels(L::kPlainX, L::kPlainY);
    check("overlay_update(plain)", overlay_update(plain_handle_, &plain_));

    const uint32_t first = static_palette[L::kChangedIndex];
    const overlay_palette_color color{
        static_cast<uint8_t>(first >> 24), static_cast<uint8_t>(first >> 16),
        static_cast<uint8_t>(first >> 8), static_cast<uint8_t>(first), 0};
    check("overlay_palette_set_color", overlay_palette_set_color(&color, L::kChangedIndex));
    add_rec();
  }

  void add_rec() {
    const TextStyle rec_style{L::kRecFontSize, OVERLAY_COLOR_RED, OVERLAY_COLOR_TRANSPARENT,
                              OVERLAY_COLOR_BLACK};
    overlay_text rec = make_text(L::kRecText, L::kStreamOverlayPriority,
                                 normalized(L::kRecX, L::kRecY), rec_style);
    rec_handle_ = keep_text(check_handle("overlay_text_create(rec)", overlay_text_create(&rec)));
    add_to_stream_if_present(rec_handle_, L::kRecStream, "rec");
  }

  struct Owned {
    int handle;
    int (*destroy)(int);
  };

  int keep(int handle, int (*destroy)(int)) {
    owned_.push_back({handle, destroy});
    return handle;
  }
  int keep_text(int handle) { return keep(handle, overlay_text_destroy); }
  int keep_image(int handle) { return keep(handle, overlay_image_destroy); }
  int keep_plain(int handle) { return keep(handle, overlay_destroy); }

  void add_to_stream_if_present(int handle, unsigned stream, const char* what) {
    if (stream < config_.streams.size()) {
      check((std::string("overlay_add_to_stream(") + what + ")").c_str(),
            overlay_add_to_stream(handle, 0, static_cast<int>(stream)));
    }
  }

  void paint_plain(uint32_t color) {
    paint_overlay(plain_handle_, plain_.buffer_size, [color](std::span<uint8_t> buffer) {
      // Overlay buffers are page-aligned: their words can be written in place.
      const std::span<uint32_t> words(static_cast<uint32_t*>(static_cast<void*>(buffer.data())),
                                      buffer.size() / 4);
      paint_framed(words, L::kPlainWidth, L::kPlainHeight, color, L::kPlainBorderColor,
                   L::kPlainBorder);
    });
  }

  const SceneConfig& config_;
  std::vector<Owned> owned_;
  overlay_text ticker_{};
  overlay_text band_{};
  overlay plain_{};
  int ticker_handle_ = 0;
  int band_handle_ = 0;
  int plain_handle_ = 0;
  int rec_handle_ = 0;
  int changes_ = 0;
};

}  // namespace

int run_application(const SceneConfig& config, int link_fd) {
  try {
    const zantrel::tools::LibrarySession attachment(zantrel::tools::LibrarySession::Role::kAttached,
                                                    "zantrel-vcam: application");
    if (attachment.fd() < 0) {
      std::fprintf(stderr, "zantrel-vcam: application: overlay_attach(0) returned %d\n",
                   attachment.fd());
      return 1;
    }
    Scene scene(config);
    scene.build();
    if (!send_byte(link_fd, kSceneReady)) {
      return 1;
    }
    while (true) {
      char message = 0;
      const Receive got = receive_byte(link_fd, message);
      if (got == Receive::kStopped) {
        return 3;
      }
      if (got != Receive::kByte) {
        return 0;  // the encoder is done with the video
      }
      if (message == kChangeNow) {
        scene.change();
        if (!send_byte(link_fd, kChangeNow)) {
          return 1;
        }
      }
    }
  } catch (const Interrupted&) {
    return 3;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zantrel-vcam: application: %s\n", error.what());
    return 1;
  }
}

}  // namespace vcam
