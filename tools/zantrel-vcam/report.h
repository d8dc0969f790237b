// What the encoder measured, sent to the supervisor as one record, and the
// summary printed from it at the end of a run.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "options.h"

namespace vcam {

struct EncoderReport {
  uint32_t frames = 0;  // frames encoded on every stream
  uint32_t streams = 0;
  uint32_t gatherings[kMaxStreams] = {};  // context version increments
  uint64_t setup_calls = 0;
  uint64_t setup_total_ns = 0;
  uint64_t setup_worst_ns = 0;
  // Driver commands issued during overlay_setup_in_encreq calls; the
  // application is idle then, so they are the encoder's own.
  uint64_t buffers_drawn = 0;  // submitted buffers: texts drawn again, per-stream copies
  uint64_t overlays_created = 0;
  uint64_t overlays_destroyed = 0;
  uint64_t refreshes = 0;
  uint64_t text_id_changes = 0;  // request positions given a new id between gatherings
  uint32_t pictures = 0;
  uint32_t interrupted = 0;
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
