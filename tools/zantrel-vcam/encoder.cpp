#include "encoder.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "camsim.h"
#include "ipc.h"
#include "live.h"
#include "pictures.h"
#include "report.h"
#include "scene.h"
#include "scene_layout.h"
#include "session.h"
#include "tokenfill.h"
#include "zantrel.h"

namespace vcam {

namespace {

struct ContextDeleter {
  void operator()(overlay_stream_context* context) const {
    overlay_stream_context_destroy(context);
  }
};
using StreamContext = std::unique_ptr<overlay_stream_context, ContextDeleter>;

struct TokenfillDeleter {
  void operator()(tokenfill_context* context) const { tokenfill_exit(context); }
};
using Tokenfill = std::unique_ptr<tokenfill_context, TokenfillDeleter>;

struct Stream {
  StreamSize size;
  StreamContext context;
  overlay_encreq request{};
};

// Driver commands so far, from the simulator's counters.
struct DriverCounts {
  long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
  long creates = camsim_call_count(CAMSIM_CREATE_OVERLAY);
  long destroys = camsim_call_count(CAMSIM_DESTROY_OVERLAY);
  long refreshes = camsim_refresh_count();
};

// One line that rewrites itself on a terminal; a line a simulated second
// otherwise, so logs stay short.
class Progress {
 public:
  explicit Progress(int frames) : frames_(frames), tty_(isatty(STDERR_FILENO) == 1) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() {
    if (tty_ && shown_) {
      std::fputc('\n', stderr);
    }
  }

  void frame_done(int frame, uint64_t gatherings) {
    const bool last = frame + 1 == frames_;
    if (!tty_ && (frame + 1) % kFramesPerSecond != 0 && !last) {
      return;
    }
    const timeval time = frame_time(frame);
    tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    std::fprintf(stderr, "%szantrel-vcam: frame %d/%d  t=%s  %s UTC  gatherings %llu%s",
                 tty_ ? "\r" : "", frame + 1, frames_, time_label(frame).c_str(), clock,
                 static_cast<unsigned long long>(gatherings), tty_ ? "\033[K" : "\n");
    std::fflush(stderr);
    shown_ = true;
  }

 private:
  int frames_;
  bool tty_;
  bool shown_ = false;
};

// Live: a line that rewrites itself every second on a terminal; a line every
// ten seconds otherwise.
class LiveProgress {
 public:
  LiveProgress() : tty_(isatty(STDERR_FILENO) == 1) {}
  LiveProgress(const LiveProgress&) = delete;
  LiveProgress& operator=(const LiveProgress&) = delete;
  ~LiveProgress() {
    if (tty_ && shown_) {
      std::fputc('\n', stderr);
    }
  }

  void frames_done(uint64_t frames, uint64_t gatherings, uint32_t pictures) {
    const uint64_t every = (tty_ ? 1 : 10) * kFramesPerSecond;
    if (frames / every == last_ / every) {
      return;
    }
    last_ = frames;
    const time_t now = time(nullptr);
    tm parts{};
    localtime_r(&now, &parts);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    std::fprintf(stderr,
                 "%szantrel-vcam: live %s  frame %llu  gatherings %llu  hardware overlays %d  "
                 "pictures %u%s",
                 tty_ ? "\r" : "", clock, static_cast<unsigned long long>(frames),
                 static_cast<unsigned long long>(gatherings), camsim_live_count(), pictures,
                 tty_ ? "\033[K" : "\n");
    std::fflush(stderr);
    shown_ = true;
  }

 private:
  bool tty_;
  bool shown_ = false;
  uint64_t last_ = 0;
};

class Encoder {
 public:
  Encoder(const EncoderConfig& config, int link_fd) : config_(config), link_fd_(link_fd) {
    report_.streams = static_cast<uint32_t>(config.streams.size());
  }

  // false after a failure, reported on stderr.
  bool open_streams() {
    if (attachment_.fd() < 0) {
      std::fprintf(stderr, "zantrel-vcam: encoder: overlay_attach(0) returned %d\n",
                   attachment_.fd());
      return false;
    }
    tokenfill_.reset(tokenfill_init());
    if (!tokenfill_) {
      std::fputs("zantrel-vcam: encoder: tokenfill_init failed\n", stderr);
      return false;
    }
    // A run's clock is UTC, so that it reads the same on every machine; live,
    // it is the machine's local time, as on a camera.
    tokenfill_->use_local_time = config_.live ? 1 : 0;
    constexpr uint32_t kAllOverlays =
        OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;
    for (size_t i = 0; i < config_.streams.size(); ++i) {
      const StreamSize size = config_.streams[i];
      StreamContext context(overlay_stream_context_create(attachment_.fd(), layout::kChannel,
                                                          static_cast<unsigned>(i), 0, size.width,
                                                          size.height, kAllOverlays));
      if (!context) {
        std::fprintf(stderr, "zantrel-vcam: encoder: no stream context for stream %zu\n", i);
        return false;
      }
      streams_.push_back({size, std::move(context), {}});
    }
    return true;
  }

  // 0 when the whole timeline ran, 1 on failure, 3 when stopped.
  int run() {
    if (const int waited = wait_for_scene(); waited != 0) {
      return waited;
    }
    Progress progress(config_.timeline.frames);
    auto capture = config_.timeline.captures.begin();
    auto change = config_.timeline.changes.begin();
    for (int frame = 0; frame < config_.timeline.frames; ++frame) {
      if (signals::stop_requested()) {
        return stopped();
      }
      if (change != config_.timeline.changes.end() && *change == frame) {
        const int result = ask_for_change();
        if (result != 0) {
          return result;
        }
        ++change;
      }
      if (!encode_frame(frame_time(frame))) {
        return 1;
      }
      report_.frames = static_cast<uint32_t>(frame + 1);
      if (frame == config_.timeline.baseline_frame) {
        report_.start = take_figures(frame);
      }
      if (frame + 1 == config_.timeline.frames) {
        report_.end = take_figures(frame);
      }
      if (capture != config_.timeline.captures.end() && capture->frame == frame) {
        if (!write_pictures(*capture)) {
          return 1;
        }
        ++capture;
      }
      progress.frame_done(frame, total_gatherings());
    }
    return 0;
  }

  // Live: 0 when stopped or when the video's reader is gone, 1 on failure.
  int serve() {
    if (config_.scene) {
      if (const int waited = wait_for_scene(); waited != 0) {
        return waited == 3 ? 0 : waited;
      }
    }
    std::vector<LiveOutput::Stream> outputs;
    for (size_t i = 0; i < streams_.size(); ++i) {
      outputs.push_back(
          {streams_[i].size, config_.out_dir + "/" + live_picture_name(i, streams_[i].size)});
    }
    LiveOutput output(std::move(outputs), config_.y4m_fd, config_.y4m_stream, kFramesPerSecond);
    std::vector<RequestIds> requests(streams_.size());
    FrameClock clock(kFramesPerSecond);
    std::fprintf(stderr,
                 "zantrel-vcam: live on %zu stream%s at %d frames a second; pictures in %s/ within "
                 "a second of a change and on kill -USR1 %d; Ctrl-C stops\n",
                 streams_.size(), streams_.size() == 1 ? "" : "s", kFramesPerSecond,
                 config_.out_dir.c_str(), getppid());
    LiveProgress progress;
    constexpr uint64_t kChangeFrames = kSoakChangeSeconds * kFramesPerSecond;
    uint64_t frames = 0;
    uint64_t next_picture = 0;
    uint64_t next_change = kChangeFrames;
    while (!signals::stop_requested()) {
      const uint64_t ticks = clock.wait();
      if (ticks == 0) {
        continue;  // a signal: a stop, or a picture request served at the tick
      }
      // Taken before the frame is set up, so that the pictures asked for show
      // a frame begun after the asking.
      const bool requested = signals::take_picture_request();
      timeval now{};
      gettimeofday(&now, nullptr);
      if (!encode_frame(now)) {
        return 1;
      }
      frames += ticks;
      report_.frames = static_cast<uint32_t>(frames);
      if (output.video_ended()) {
        return output.reader_gone() || signals::stop_requested() ? 0 : 1;
      }
      // Not once stopping: the application may be taking its scene down.
      const bool pictures = (requested || frames >= next_picture) && !signals::stop_requested();
      if (pictures) {
        next_picture = frames + kFramesPerSecond;
      }
      for (size_t i = 0; i < streams_.size(); ++i) {
        std::copy_n(streams_[i].request.overlay_ids, 8, requests[i].begin());
      }
      output.frame_done(requests, ticks, frames, pictures, requested && pictures);
      report_.pictures = output.pictures();
      if (config_.scene && frames >= next_change) {
        if (const int result = ask_for_change(); result != 0) {
          return result == 3 ? 0 : result;
        }
        next_change = frames + kChangeFrames;
      }
      progress.frames_done(frames, total_gatherings(), report_.pictures);
    }
    return 0;
  }

  const EncoderReport& report() const { return report_; }

 private:
  int wait_for_scene() {
    char message = 0;
    const Receive ready = receive_byte(link_fd_, message);
    if (ready == Receive::kStopped) {
      return stopped();
    }
    if (ready != Receive::kByte || message != kSceneReady) {
      std::fputs("zantrel-vcam: encoder: the application ended before its scene was ready\n",
                 stderr);
      return 1;
    }
    return 0;
  }

  int stopped() {
    report_.interrupted = 1;
    return 3;
  }

  int ask_for_change() {
    if (!send_byte(link_fd_, kChangeNow)) {
      std::fputs("zantrel-vcam: encoder: the application is gone\n", stderr);
      return 1;
    }
    char message = 0;
    const Receive got = receive_byte(link_fd_, message);
    if (got == Receive::kStopped) {
      return stopped();
    }
    if (got != Receive::kByte || message != kChangeNow) {
      std::fputs("zantrel-vcam: encoder: the application failed to change its scene\n", stderr);
      return 1;
    }
    return 0;
  }

  bool encode_frame(timeval time) {
    const overlay_expansion_params params{tokenfill_.get(), &time};
    const DriverCounts before;
    uint64_t frame_ns = 0;
    for (size_t i = 0; i < streams_.size(); ++i) {
      Stream& stream = streams_[i];
      const overlay_encreq previous = stream.request;
      const int32_t version = stream.context->version;
      const auto start = std::chrono::steady_clock::now();
      const int result = overlay_setup_in_encreq(stream.context.get(), &stream.request, &params);
      const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::steady_clock::now() - start)
                          .count();
      if (result != 0) {
        std::fprintf(stderr, "zantrel-vcam: encoder: overlay_setup_in_encreq returned %d\n",
                     result);
        return false;
      }
      report_.setup_calls++;
      report_.setup_total_ns += static_cast<uint64_t>(ns);
      report_.setup_worst_ns = std::max(report_.setup_worst_ns, static_cast<uint64_t>(ns));
      frame_ns += static_cast<uint64_t>(ns);
      // A call gathers at most once; versions come from one counter of the
      // process, so the other streams' gatherings make them jump.
      if (stream.context->version != version) {
        report_.gatherings[i]++;
      } else {
        report_.quiet_calls++;
        report_.quiet_total_ns += static_cast<uint64_t>(ns);
        for (int position = 0; position < 8; ++position) {
          report_.text_id_changes +=
              previous.overlay_ids[position] != stream.request.overlay_ids[position] ? 1 : 0;
        }
      }
    }
    if (frame_ns > report_.frame_worst_ns) {
      report_.frame_worst_ns = frame_ns;
      report_.frame_worst = report_.frames;
    }
    const DriverCounts after;
    report_.buffers_drawn += static_cast<uint64_t>(after.submits - before.submits);
    report_.overlays_created += static_cast<uint64_t>(after.creates - before.creates);
    report_.overlays_destroyed += static_cast<uint64_t>(after.destroys - before.destroys);
    report_.refreshes += static_cast<uint64_t>(after.refreshes - before.refreshes);
    return true;
  }

  bool write_pictures(const Capture& capture) {
    for (size_t i = 0; i < streams_.size(); ++i) {
      const std::string path = config_.out_dir + "/" + picture_name(i, streams_[i].size, capture);
      if (compose_picture(streams_[i].request, streams_[i].size, path) < 0) {
        std::fprintf(stderr, "zantrel-vcam: encoder: cannot write %s\n", path.c_str());
        return false;
      }
      report_.pictures++;
    }
    return true;
  }

  // The application waits for the encoder's next word, so it is still.
  RunFigures take_figures(int frame) const {
    RunFigures figures;
    figures.frame = frame;
    figures.live_overlays = camsim_live_count();
    figures.processes[kOwnerProcess] = read_process_figures(config_.owner_pid);
    figures.processes[kApplicationProcess] = read_process_figures(config_.application_pid);
    figures.processes[kEncoderProcess] = read_process_figures(getpid());
    return figures;
  }

  uint64_t total_gatherings() const {
    uint64_t total = 0;
    for (uint32_t gatherings : report_.gatherings) {
      total += gatherings;
    }
    return total;
  }

  const EncoderConfig& config_;
  int link_fd_;
  EncoderReport report_;
  // Declared before the contexts, so they are destroyed before the detach.
  zantrel::tools::LibrarySession attachment_{zantrel::tools::LibrarySession::Role::kAttached};
  Tokenfill tokenfill_;
  std::vector<Stream> streams_;
};

}  // namespace

int run_encoder(const EncoderConfig& config, int link_fd, int report_fd) {
  int result = 1;
  EncoderReport report;
  {
    Encoder encoder(config, link_fd);
    if (encoder.open_streams()) {
      result = config.live ? encoder.serve() : encoder.run();
    }
    report = encoder.report();
  }
  // The contexts and their per-stream overlays are gone; now the report.
  if (!zantrel::write_all(report_fd, &report, sizeof report)) {
    std::fputs("zantrel-vcam: encoder: cannot hand over the report\n", stderr);
  }
  return result;
}

}  // namespace vcam
