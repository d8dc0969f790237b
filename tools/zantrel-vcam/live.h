// What the live encoder needs besides the library: a frame clock that
// sleeps between frames, pictures replaced in one step so that a viewer
// watching the file never reads half of one, and raw video of one stream.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc.h"
#include "options.h"
#include "zantrel.h"

namespace vcam {

// Ticks at a fixed rate on the monotonic clock.
class FrameClock {
 public:
  explicit FrameClock(int frames_per_second);
  // Waits for the next tick; the number of ticks since the last wait (more
  // than 1 when the caller fell behind), or 0 when a signal came first.
  uint64_t wait();

 private:
  UniqueFd timer_;
};

using RequestIds = std::array<uint32_t, 8>;

// "stream0-1920x1080.png": the live picture of a stream.
std::string live_picture_name(size_t stream, StreamSize size);

// The request's overlays over the test picture, written to a scratch name
// beside path and renamed over it. false after a failure, reported on stderr.
bool replace_picture(const RequestIds& ids, StreamSize size, const std::string& path);

// YUV4MPEG2 of one stream (4:2:0, BT.601 studio range): a header, then one
// frame a tick. A frame is composed again only when what the driver shows
// for the request changed; otherwise the last one is sent again.
class Y4mWriter {
 public:
  // fd is not owned and is made non-blocking, so that a reader that stopped
  // reading does not hold up a stop (stop).
  Y4mWriter(int fd, StreamSize size, int frames_per_second, const std::atomic<bool>& stop);
  // Sends count frames of what the request's ids show now. false when the
  // reader is gone (reader_gone()), on a stop, or when the picture cannot be
  // made, reported on stderr.
  bool write(const RequestIds& ids, uint64_t count);
  bool reader_gone() const { return reader_gone_; }

 private:
  bool send(const void* data, size_t size);
  bool compose(const RequestIds& ids);

  int fd_;
  const std::atomic<bool>& stop_;
  StreamSize size_;
  std::string header_;
  std::vector<uint32_t> pixels_;  // the composition, ARGB
  std::vector<uint8_t> frame_;    // "FRAME\n", Y, Cb, Cr
  std::vector<uint32_t> shown_;   // what frame_ was composed from
  bool reader_gone_ = false;
};

// The pictures and the video of the live encoder, made on a thread of their
// own, so that composing them never holds up the frames: the thread works
// from the requests of the latest frame and sends the video frames that
// passed meanwhile again.
class LiveOutput {
 public:
  struct Stream {
    StreamSize size;
    std::string picture_path;
  };
  // y4m_fd -1: no video.
  LiveOutput(std::vector<Stream> streams, int y4m_fd, size_t y4m_stream, int frames_per_second);
  LiveOutput(const LiveOutput&) = delete;
  LiveOutput& operator=(const LiveOutput&) = delete;
  // Waits for the work under way.
  ~LiveOutput();

  // After a frame: each stream's request, the clock ticks it stands for,
  // whether the pictures are due and whether they were asked for.
  void frame_done(const std::vector<RequestIds>& requests, uint64_t ticks, uint64_t frame,
                  bool pictures, bool requested);
  // The video ended: its reader went away, or it failed.
  bool video_ended() const { return video_ended_.load(); }
  bool reader_gone() const { return reader_gone_.load(); }
  uint32_t pictures() const { return pictures_.load(); }

 private:
  void run();

  const std::vector<Stream> streams_;
  const size_t y4m_stream_;
  const uint64_t frames_per_second_;
  const bool tty_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> video_ended_{false};
  std::atomic<bool> reader_gone_{false};
  std::atomic<uint32_t> pictures_{0};
  std::unique_ptr<Y4mWriter> video_;
  // What each stream's written picture shows (shown_state), empty before
  // the first one; only the output thread touches it.
  std::vector<std::vector<uint32_t>> pictured_;
  std::mutex mutex_;
  std::condition_variable wake_;
  // The work waiting, under mutex_.
  std::vector<RequestIds> requests_;
  uint64_t video_ticks_ = 0;
  uint64_t frame_ = 0;
  bool pictures_due_ = false;
  bool requested_ = false;
  std::thread thread_;  // last: started once everything above exists
};

// What the driver shows for the ids of a request: the ids, and for each live
// one its position, size, shown buffer and submissions, and the palettes.
std::vector<uint32_t> shown_state(const RequestIds& ids);

}  // namespace vcam
