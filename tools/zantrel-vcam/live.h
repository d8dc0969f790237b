// What the live encoder needs besides the library: a frame clock that
// sleeps between frames, pictures replaced in one step so that a viewer
// watching the file never reads half of one, and raw video of one stream.
#pragma once

#include <cstdint>
#include <string>
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
  Fd timer_;
};

// "stream0-1920x1080.png": the live picture of a stream.
std::string live_picture_name(size_t stream, StreamSize size);

// The request's overlays over the test picture, written to a scratch name
// beside path and renamed over it. false after a failure, reported on stderr.
bool replace_picture(const overlay_encreq& request, StreamSize size, const std::string& path);

// YUV4MPEG2 of one stream (4:2:0, BT.601 studio range): a header, then one
// frame a tick. A frame is composed again only when what the driver shows
// for the request changed; otherwise the last one is sent again.
class Y4mWriter {
 public:
  // fd is not owned; scratch_png is where compositions go on their way.
  Y4mWriter(int fd, StreamSize size, int frames_per_second, std::string scratch_png);
  // Sends count frames of what request shows now. false when the reader is
  // gone (reader_gone()) or the picture cannot be made, reported on stderr.
  bool write(const overlay_encreq& request, uint64_t count);
  bool reader_gone() const { return reader_gone_; }

 private:
  bool send(const void* data, size_t size);
  bool compose(const overlay_encreq& request);

  int fd_;
  StreamSize size_;
  std::string scratch_png_;
  std::string header_;
  std::vector<uint8_t> frame_;   // "FRAME\n", Y, Cb, Cr
  std::vector<uint32_t> shown_;  // what frame_ was composed from
  bool reader_gone_ = false;
};

// What the driver shows for the ids of a request: the ids, and for each live
// one its position, size, shown buffer and submissions, and the palettes.
std::vector<uint32_t> shown_state(const uint32_t ids[8]);

}  // namespace vcam
