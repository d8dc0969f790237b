#include "live.h"

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

Y4mWriter::Y4mWriter(int fd, StreamSize size, int frames_per_second, const std::atomic<bool>& stop)
    : fd_(fd), stop_(stop), size_(size) {
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
  const size_t w = size_.width;
  const size_t h = size_.height;
  pixels_.resize(w * h);
  if (camsim_compose_argb(ids.data(), static_cast<int>(w), static_cast<int>(h), pixels_.data()) <
      0) {
    std::fprintf(stderr, "zantrel-vcam: encoder: cannot compose a video frame: %s\n",
                 std::strerror(errno));
    return false;
  }
  constexpr char kFrame[] = "FRAME\n";
  constexpr size_t kFrameTag = sizeof kFrame - 1;
  frame_.resize(kFrameTag + w * h * 3 / 2);
  std::memcpy(frame_.data(), kFrame, kFrameTag);
  uint8_t* luma = frame_.data() + kFrameTag;
  uint8_t* cb = luma + w * h;
  uint8_t* cr = cb + w * h / 4;
  const uint32_t* argb = pixels_.data();
  const auto channel = [](uint32_t pixel, int c) {
    return static_cast<int>((pixel >> (16 - 8 * c)) & 0xFF);
  };
  for (size_t i = 0; i < w * h; ++i) {
    const int r = channel(argb[i], 0), g = channel(argb[i], 1), b = channel(argb[i], 2);
    luma[i] = static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
  }
  for (size_t y = 0; y + 1 < h; y += 2) {
    const uint32_t* top = argb + y * w;
    const uint32_t* bottom = top + w;
    for (size_t x = 0; x + 1 < w; x += 2) {
      int sum[3];  // four times the block's mean
      for (int c = 0; c < 3; ++c) {
        sum[c] = channel(top[x], c) + channel(top[x + 1], c) + channel(bottom[x], c) +
                 channel(bottom[x + 1], c);
      }
      const int r = sum[0], g = sum[1], b = sum[2];
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
                       int frames_per_second)
    : streams_(std::move(streams)),
      y4m_stream_(y4m_stream),
      frames_per_second_(static_cast<uint64_t>(frames_per_second)),
      tty_(isatty(STDERR_FILENO) == 1),
      pictured_(streams_.size()),
      requests_(streams_.size()) {
  if (y4m_fd >= 0) {
    video_ =
        std::make_unique<Y4mWriter>(y4m_fd, streams_[y4m_stream].size, frames_per_second, stop_);
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
      // Idle, a stream's picture is written once and then left alone; a
      // request (SIGUSR1) writes every one.
      std::vector<uint32_t> shown = shown_state(requests[i]);
      if (!requested && shown == pictured_[i]) {
        continue;
      }
      const bool ok = replace_picture(requests[i], streams_[i].size, streams_[i].picture_path);
      pictures_ += ok ? 1 : 0;
      written = written && ok;
      pictured_[i] = ok ? std::move(shown) : std::vector<uint32_t>{};
    }
    if (requested && written) {
      std::fprintf(stderr, "%szantrel-vcam: pictures of frame %llu written on request\n",
                   tty_ ? "\r\033[K" : "", static_cast<unsigned long long>(frame));
    }
    lock.lock();
  }
}

}  // namespace vcam
