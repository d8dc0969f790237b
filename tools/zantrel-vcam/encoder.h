// The encoder process: one stream context per stream, one encode request a
// frame on each, at 30 frames a second of simulated time.
#pragma once

#include <string>
#include <vector>

#include "options.h"
#include "timeline.h"

namespace vcam {

struct EncoderConfig {
  std::vector<StreamSize> streams;  // all on channel 0, stream numbers 0, 1, ...
  Timeline timeline;
  std::string out_dir;
  // The other processes, whose sizes the report gives with the encoder's.
  int owner_pid = 0;
  int application_pid = 0;
  // Live: frames at the real rate until stopped, pictures of every stream
  // in out_dir once a second and on request, optionally video of one.
  bool live = false;
  bool scene = true;  // an application process with the scene is on the link
  int y4m_fd = -1;
  size_t y4m_stream = 0;
  std::string work_dir;  // scratch space
};

// overlay_attach(0), a context per stream, waits for the application's
// scene, then runs the timeline: asks the application for a change just
// before each of timeline.changes, writes the captured pictures, takes the
// processes' figures after the baseline and the last frame, and sends an
// EncoderReport on report_fd at the end (also when stopped). Closing the
// link tells the application that the video is over. 0, 1 after a failure,
// 3 when stopped. Live, the timeline is not used: it runs until stopped (0)
// or the video's reader goes, asks for a change every kSoakChangeSeconds
// when there is a scene, and the report's frames count the clock's ticks.
int run_encoder(const EncoderConfig& config, int link_fd, int report_fd);

}  // namespace vcam
