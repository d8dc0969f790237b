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
  // Every frame before which the scene changes, rising; change_frame first.
  // Odd-numbered changes (the first, the third...) make the changed scene,
  // the others make the first scene again.
  std::vector<int> changes;
  // The frame after which the processes' sizes are first taken: the first
  // frame, or in a soak run the first frame after the scene came back.
  int baseline_frame = 0;
  std::vector<Capture> captures;  // by rising frame, no frame twice
};

// A soak run changes the scene every kSoakChangeSeconds, an even number of
// times, so that it ends with the scene it started with.
inline constexpr int kSoakChangeSeconds = 4;

Timeline make_timeline(int seconds, bool soak = false);
// The wall-clock time that frame stands for.
timeval frame_time(int frame);
// "01.500s": seconds since the start, zero-padded so names sort by time.
std::string time_label(int frame);

}  // namespace vcam
