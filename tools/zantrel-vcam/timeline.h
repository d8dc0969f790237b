// The simulated clock of a run. Frames are numbered from 0 at 30 a second,
// starting at a fixed date, so that two runs draw the same pictures.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vcam {

inline constexpr int kFramesPerSecond = 30;
// 2026-11-22 12:00:00 UTC.
inline constexpr time_t kStartTime = 1795348800;

// A frame whose pictures are kept.
struct Capture {
  int frame = 0;
  std::string label;  // the frame's simulated time, "01.500s"
};

struct Timeline {
  int frames = 0;
  // The application changes its scene just before this frame is encoded.
  int change_frame = 0;
  std::vector<Capture> captures;  // by rising frame, no frame twice
};

Timeline make_timeline(int seconds);
// The wall-clock time that frame stands for.
timeval frame_time(int frame);
// "01.500s": seconds since the start, zero-padded so names sort by time.
std::string time_label(int frame);

}  // namespace vcam
