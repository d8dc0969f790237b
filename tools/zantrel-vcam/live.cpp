#include "live.h"

#include <cairo.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "camsim.h"

namespace vcam {

FrameClock::FrameClock(int frames_per_second)
    : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
  if (!timer_) {
    throw std::system_error(errno, std::generic_category(), "timerfd_create");
  }
  itimerspec period{};
  period.it_interval.tv_nsec = 1000000000L / frames_per_second;
  period.it_value = period.it_interval;
  if (timerfd_settime(timer_.get(), 0, &period, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "timerfd_settime");
  }
}

uint64_t FrameClock::wait() {
  if (wait_readable(timer_.get(), -1) != Wait::kReady) {
    return 0;
  }
  uint64_t ticks = 0;
  return read(timer_.get(), &ticks, sizeof ticks) == sizeof ticks ? ticks : 0;
}

std::string live_picture_name(size_t stream, StreamSize size) {
  return "stream" + std::to_string(stream) + "-" + to_string(size) + ".png";
}

bool replace_picture(const RequestIds& ids, StreamSize size, const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string scratch = slash == std::string::npos ? "." + path + ".part"
                                                         : path.substr(0, slash + 1) + "." +
                                                               path.substr(slash + 1) + ".part";
  if (camsim_compose(ids.data(), static_cast<int>(size.width), static_cast<int>(size.height),
                     scratch.c_str()) < 0 ||
      rename(scratch.c_str(), path.c_str()) != 0) {
    std::fprintf(stderr, "zantrel-vcam: encoder: cannot write %s: %s\n", path.c_str(),
                 std::strerror(errno));
    unlink(scratch.c_str());
    return false;
  }
  return true;
}

std::vector<uint32_t> shown_state(const RequestIds& ids) {
  std::vector<uint32_t> state(ids.begin(), ids.end());
  for (int place = 0; place < 8; ++place) {
    camsim_overlay_info info{};
    if (ids[place] == 0 || camsim_get_overlay_info(ids[place], &info) != 0) {
      continue;
    }
    const internal_overlay& r = info.record;
    state.insert(state.end(),
                 {r.x, r.y, r.width, r.height, r.visible_width, r.visible_height, r.coord_type,
                  r.palette_bank, static_cast<uint32_t>(info.shown), info.submit_count});
  }
  for (unsigned bank = 0; bank < 2; ++bank) {
    cam_palette_color colors[CAMSIM_PALETTE_ENTRIES] = {};
    camsim_read_palette(bank, colors, nullptr);
    for (const cam_palette_color& c : colors) {
      state.push_back(static_cast<uint32_t>(c.luma) << 24 | c.cb << 16 | c.cr << 8 | c.alpha);
    }
  }
  return state;
}

Y4mWriter::Y4mWriter(int fd, StreamSize size, int frames_per_second, std::string scratch_png,
                     const std::atomic<bool>& stop)
    : fd_(fd), stop_(stop), size_(size), scratch_png_(std::move(scratch_png)) {
  const int flags = fcntl(fd_, F_GETFL);
  if (flags >= 0) {
    fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
  }
  // C420jpeg: chroma sited between the pixels of each 2 x 2 block, as the
  // block mean below gives it.
  header_ = "YUV4MPEG2 W" + std::to_string(size.width) + " H" + std::to_string(size.height) + " F" +
            std::to_string(frames_per_second) + ":1 Ip A1:1 C420jpeg\n";
}

bool Y4mWriter::compose(const RequestIds& ids) {
  if (camsim_compose(ids.data(), static_cast<int>(size_.width), static_cast<int>(size_.height),
                     scratch_png_.c_str()) < 0) {
    std::fprintf(stderr, "zantrel-vcam: encoder: cannot compose a video frame: %s\n",
                 std::strerror(errno));
    return false;
  }
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> picture(
      cairo_image_surface_create_from_png(scratch_png_.c_str()), cairo_surface_destroy);
  unlink(scratch_png_.c_str());
  const size_t w = size_.width;
  const size_t h = size_.height;
  if (cairo_surface_status(picture.get()) != CAIRO_STATUS_SUCCESS ||
      static_cast<size_t>(cairo_image_surface_get_width(picture.get())) != w ||
      static_cast<size_t>(cairo_image_surface_get_height(picture.get())) != h) {
    std::fputs("zantrel-vcam: encoder: cannot read back a video frame\n", stderr);
    return false;
  }
  const unsigned char* data = cairo_image_surface_get_data(picture.get());
  const size_t stride = static_cast<size_t>(cairo_image_surface_get_stride(picture.get()));
  constexpr char kFrame[] = "FRAME\n";
  constexpr size_t kFrameTag = sizeof kFrame - 1;
  frame_.assign(kFrameTag + w * h * 3 / 2, 0);
  std::memcpy(frame_.data(), kFrame, kFrameTag);
  uint8_t* luma = frame_.data() + kFrameTag;
  uint8_t* cb = luma + w * h;
  uint8_t* cr = cb + w * h / 4;
  // The picture is opaque, so cairo's premultiplied pixels are plain RGB.
  const auto rgb = [&](size_t x, size_t y, int channel) {
    uint32_t pixel = 0;
    std::memcpy(&pixel, data + y * stride + 4 * x, sizeof pixel);
    return static_cast<int>((pixel >> (16 - 8 * channel)) & 0xFF);
  };
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      const int r = rgb(x, y, 0), g = rgb(x, y, 1), b = rgb(x, y, 2);
      luma[y * w + x] = static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
    }
  }
  for (size_t y = 0; y < h; y += 2) {
    for (size_t x = 0; x < w; x += 2) {
      int sum[3] = {0, 0, 0};
      for (int c = 0; c < 3; ++c) {
        sum[c] = rgb(x, y, c) + rgb(x + 1, y, c) + rgb(x, y + 1, c) + rgb(x + 1, y + 1, c);
      }
      const int r = sum[0], g = sum[1], b = sum[2];  // four times the block's mean
      const size_t at = y / 2 * (w / 2) + x / 2;
      cb[at] = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 512) >> 10) + 128);
      cr[at] = static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 512) >> 10) + 128);
    }
  }
  return true;
}

bool Y4mWriter::write(const RequestIds& ids, uint64_t count) {
  std::vector<uint32_t> shown = shown_state(ids);
  if (frame_.empty() || shown != shown_) {
    if (!compose(ids)) {
      return false;
    }
    shown_ = std::move(shown);
  }
  if (!header_.empty()) {
    if (!send(header_.data(), header_.size())) {
      return false;
    }
    header_.clear();
  }
  for (uint64_t i = 0; i < count; ++i) {
    if (!send(frame_.data(), frame_.size())) {
      return false;
    }
  }
  return true;
}

bool Y4mWriter::send(const void* data, size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd_, bytes, size);
    if (n >= 0) {
      bytes += n;
      size -= static_cast<size_t>(n);
    } else if (errno == EAGAIN) {
      if (stop_.load()) {
        return false;
      }
      // A reader that stopped reading must not hold up a stop.
      pollfd out{fd_, POLLOUT, 0};
      poll(&out, 1, 100);
    } else if (errno != EINTR) {
      break;
    }
  }
  if (size == 0) {
    return true;
  }
  reader_gone_ = errno == EPIPE;
  if (reader_gone_) {
    std::fputs("zantrel-vcam: encoder: the video's reader closed it\n", stderr);
  } else {
    std::fprintf(stderr, "zantrel-vcam: encoder: cannot write the video: %s\n",
                 std::strerror(errno));
  }
  return false;
}

LiveOutput::LiveOutput(std::vector<Stream> streams, int y4m_fd, size_t y4m_stream,
                       int frames_per_second, const std::string& scratch_png)
    : streams_(std::move(streams)),
      y4m_stream_(y4m_stream),
      frames_per_second_(static_cast<uint64_t>(frames_per_second)),
      tty_(isatty(STDERR_FILENO) == 1),
      requests_(streams_.size()) {
  if (y4m_fd >= 0) {
    video_ = std::make_unique<Y4mWriter>(y4m_fd, streams_[y4m_stream].size, frames_per_second,
                                         scratch_png, stop_);
  }
  thread_ = std::thread([this] { run(); });
}

LiveOutput::~LiveOutput() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void LiveOutput::frame_done(const std::vector<RequestIds>& requests, uint64_t ticks, uint64_t frame,
                            bool pictures, bool requested) {
  {
    std::lock_guard lock(mutex_);
    requests_ = requests;
    video_ticks_ += video_ ? ticks : 0;
    frame_ = frame;
    pictures_due_ = pictures_due_ || pictures;
    requested_ = requested_ || requested;
  }
  wake_.notify_one();
}

void LiveOutput::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stop_ || pictures_due_ || video_ticks_ > 0; });
    if (stop_) {
      return;
    }
    const std::vector<RequestIds> requests = requests_;
    // At most a second of frames: a longer gap (a stopped process, a
    // suspended machine) is not filled in.
    const uint64_t ticks = std::min<uint64_t>(video_ticks_, frames_per_second_);
    const uint64_t frame = frame_;
    const bool pictures = pictures_due_;
    const bool requested = requested_;
    video_ticks_ = 0;
    pictures_due_ = false;
    requested_ = false;
    lock.unlock();
    if (ticks > 0 && !video_ended_ && !video_->write(requests[y4m_stream_], ticks)) {
      reader_gone_ = video_->reader_gone();
      video_ended_ = true;
    }
    bool written = pictures;
    for (size_t i = 0; pictures && i < streams_.size(); ++i) {
      const bool ok = replace_picture(requests[i], streams_[i].size, streams_[i].picture_path);
      pictures_ += ok ? 1 : 0;
      written = written && ok;
    }
    if (requested && written) {
      std::fprintf(stderr, "%szantrel-vcam: pictures of frame %llu written on request\n",
                   tty_ ? "\r\033[K" : "", static_cast<unsigned long long>(frame));
    }
    lock.lock();
  }
}

}  // namespace vcam
