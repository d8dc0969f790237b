// What the encoder measured, sent to the supervisor as one record, and the
// summary printed from it at the end of a run.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "options.h"

namespace vcam {

// What the system says about one process: sizes in KiB, open descriptors.
struct ProcessFigures {
  int32_t pid = 0;
  int32_t descriptors = -1;
  uint64_t vm_size_kib = 0;
  uint64_t vm_rss_kib = 0;
};
// From /proc; descriptors -1 when they cannot be counted.
ProcessFigures read_process_figures(int pid);

// The camera's processes, in the order the summary lists them.
enum ProcessRole { kOwnerProcess, kApplicationProcess, kEncoderProcess, kProcessRoles };

// The processes and the driver at one moment of the run.
struct RunFigures {
  int32_t frame = -1;  // after which frame they were taken; -1 when not taken
  int32_t live_overlays = 0;
  ProcessFigures processes[kProcessRoles];
};

struct EncoderReport {
  uint32_t frames = 0;  // frames encoded on every stream
  uint32_t streams = 0;
  // Context version increments: gatherings, and compositions that show a
  // copy whose drawing was spread over frames.
  uint32_t gatherings[kMaxStreams] = {};
  uint64_t setup_calls = 0;
  uint64_t setup_total_ns = 0;
  uint64_t setup_worst_ns = 0;
  uint64_t frame_worst_ns = 0;  // the calls of all streams for one frame
  uint32_t frame_worst = 0;     // that frame's number
  // The calls that gathered nothing: the steady state of a frame.
  uint64_t quiet_calls = 0;
  uint64_t quiet_total_ns = 0;
  // Driver commands issued during overlay_setup_in_encreq calls; the
  // application is idle then, so they are the encoder's own.
  uint64_t buffers_drawn = 0;  // submitted buffers: texts drawn again, per-stream copies
  uint64_t overlays_created = 0;
  uint64_t overlays_destroyed = 0;
  uint64_t refreshes = 0;
  uint64_t text_id_changes = 0;  // request positions given a new id between gatherings
  uint32_t pictures = 0;
  uint32_t interrupted = 0;
  RunFigures start;  // after the timeline's baseline frame
  RunFigures end;    // after the last frame
};

// What the supervisor found after every process had ended.
struct Leftovers {
  int live_overlays = 0;
  std::vector<std::string> tables;  // "/dev/shm/ovl_*"
};

void print_summary(std::FILE* out, const EncoderReport& report,
                   const std::vector<StreamSize>& streams, const Leftovers& leftovers,
                   double wall_seconds, const std::string& out_dir, bool contact_sheet);

}  // namespace vcam
