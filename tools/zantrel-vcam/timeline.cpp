#include "timeline.h"

#include <algorithm>
#include <cstdio>

namespace vcam {

Timeline make_timeline(int seconds, bool soak) {
  Timeline timeline;
  timeline.frames = seconds * kFramesPerSecond;
  timeline.change_frame = timeline.frames / 2;
  constexpr int kSoakStep = kSoakChangeSeconds * kFramesPerSecond;
  const int soak_changes = (timeline.frames - 1) / kSoakStep / 2 * 2;
  if (soak && soak_changes >= 2) {
    for (int i = 1; i <= soak_changes; ++i) timeline.changes.push_back(i * kSoakStep);
    timeline.change_frame = kSoakStep;
    timeline.baseline_frame = 2 * kSoakStep;
  } else {
    timeline.changes.push_back(timeline.change_frame);
  }
  // Two frames a second apart before the change (the clock must differ),
  // the first frame after it, and the last frame.
  std::vector<int> frames{kFramesPerSecond / 2, kFramesPerSecond * 3 / 2, timeline.change_frame,
                          timeline.frames - 1};
  std::sort(frames.begin(), frames.end());
  frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
  for (int frame : frames) {
    if (frame >= 0 && frame < timeline.frames) {
      timeline.captures.push_back({frame, time_label(frame)});
    }
  }
  return timeline;
}

timeval frame_time(int frame) {
  timeval time{};
  time.tv_sec = kStartTime + frame / kFramesPerSecond;
  time.tv_usec = static_cast<suseconds_t>(frame % kFramesPerSecond) * 1000000 / kFramesPerSecond;
  return time;
}

std::string time_label(int frame) {
  // Rounded to the nearest millisecond: frame 299 is 9.967 s.
  const long long millis =
      (static_cast<long long>(frame) * 1000 + kFramesPerSecond / 2) / kFramesPerSecond;
  char text[32];
  std::snprintf(text, sizeof text, "%02lld.%03llds", millis / 1000, millis % 1000);
  return text;
}

}  // namespace vcam
