// The camsim_* functions for tests and tools: each one attaches, takes the
// driver lock for its work and reports failures through errno.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "camsim.h"
#include "state.h"
#include "zantrel-base/io.h"

namespace {

using camsim::Attachment;
using camsim::Lock;
using camsim::SharedState;

int fail(int error) {
  errno = error;
  return -1;
}

bool valid_command(camsim_command c) { return static_cast<int>(c) >= 0 && c < CAMSIM_NBR_COMMANDS; }

// Runs `fn(state)` under the driver lock; -1 with errno when the state
// cannot be reached.
template <typename Fn>
long locked(Fn&& fn) {
  const Attachment* a = camsim::attach();
  if (a == nullptr) return -1;
  Lock lock(*a);
  if (!lock.held()) return -1;
  return fn(*a);
}

}  // namespace

extern "C" {

CAMSIM_API int camsim_reset(void) {
  return static_cast<int>(locked([](const Attachment& a) {
    camsim::reset_locked(a);
    return 0L;
  }));
}

CAMSIM_API int camsim_live_count(void) {
  return static_cast<int>(locked([](const Attachment& a) {
    return static_cast<long>(
        std::count_if(std::begin(a.state->overlays), std::end(a.state->overlays),
                      [](const camsim::OverlaySlot& o) { return o.live == 1; }));
  }));
}

CAMSIM_API int camsim_live_ids(uint32_t* ids, int capacity) {
  if (capacity < 0 || (ids == nullptr && capacity > 0)) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    uint32_t found[CAMSIM_MAX_OVERLAYS];
    int n = 0;
    for (const auto& o : a.state->overlays)
      if (o.live == 1) found[n++] = o.rec.id;
    std::sort(found, found + n);
    std::copy_n(found, std::min(n, capacity), ids);
    return static_cast<long>(n);
  }));
}

CAMSIM_API int camsim_get_overlay_info(uint32_t id, camsim_overlay_info* out) {
  if (out == nullptr) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    const camsim::OverlaySlot* o = camsim::find_overlay(*a.state, id);
    if (o == nullptr) return static_cast<long>(fail(ENOENT));
    *out = camsim_overlay_info{};
    out->record = o->rec;
    for (uint32_t i = 0; i < o->rec.nbr_buffers; ++i) out->buffer_offsets[i] = o->buffers[i].offset;
    out->shown = o->shown;
    out->submit_count = o->submit_count;
    out->last_param = o->last_param;
    out->in_source = std::find(std::begin(a.state->sources), std::end(a.state->sources), id) !=
                     std::end(a.state->sources);
    return 0L;
  }));
}

CAMSIM_API int camsim_get_overlay(uint32_t id, internal_overlay* out) {
  if (out == nullptr) return fail(EINVAL);
  camsim_overlay_info info;
  if (camsim_get_overlay_info(id, &info) != 0) return -1;
  *out = info.record;
  return 0;
}

CAMSIM_API long camsim_read_shown_buffer(uint32_t id, void* dst, size_t capacity) {
  if (dst == nullptr && capacity > 0) return fail(EINVAL);
  uint32_t offset = 0;
  uint32_t size = 0;
  const long found = locked([&](const Attachment& a) {
    const camsim::OverlaySlot* o = camsim::find_overlay(*a.state, id);
    if (o == nullptr) {
      errno = ENOENT;
      return static_cast<long>(CAMSIM_NO_OVERLAY);
    }
    if (o->shown < 0) return static_cast<long>(CAMSIM_NOTHING_SHOWN);
    offset = o->buffers[o->shown].offset;
    size = o->rec.buffer_size;
    return 0L;
  });
  if (found != 0) return found;
  // Read outside the lock, as the hardware reads a shown buffer while
  // clients go on.
  const size_t want = std::min<size_t>(capacity, size);
  if (!zantrel::pread_exactly(camsim::attach()->fd, dst, want, static_cast<off_t>(offset))) {
    return -1;
  }
  return static_cast<long>(size);
}

CAMSIM_API long camsim_call_count(camsim_command command) {
  if (!valid_command(command)) return fail(EINVAL);
  return locked([&](const Attachment& a) { return static_cast<long>(a.state->calls[command]); });
}

CAMSIM_API long camsim_total_calls(void) {
  return locked([](const Attachment& a) {
    long total = 0;
    for (auto c : a.state->calls) total += static_cast<long>(c);
    return total;
  });
}

CAMSIM_API long camsim_refresh_count(void) {
  return locked([](const Attachment& a) { return static_cast<long>(a.state->refreshes); });
}

CAMSIM_API long camsim_open_count(void) {
  return locked([](const Attachment& a) { return static_cast<long>(a.state->opens); });
}

CAMSIM_API int camsim_inject_fault(camsim_command command, int count, int error) {
  if (!valid_command(command) || command == CAMSIM_UNKNOWN_COMMAND || count < 0 ||
      (count > 0 && error <= 0))
    return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    a.state->faults[command] = camsim::Fault{count, error};
    return 0L;
  }));
}

CAMSIM_API int camsim_fail_call(unsigned kinds, long k, int error) {
  if ((kinds & ~CAMSIM_CALL_ALL) != 0 || k < 0 || (k > 0 && error <= 0)) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    camsim::SweepPoint& sweep = a.state->sweep;
    std::atomic_ref<std::uint32_t>(sweep.kinds).store(0);
    if (kinds == 0) return 0L;  // stopped; what was counted stays readable
    sweep = camsim::SweepPoint{0, error, k, 0, 0, 0};
    std::atomic_ref<std::uint32_t>(sweep.kinds).store(kinds, std::memory_order_release);
    return 0L;
  }));
}

CAMSIM_API long camsim_counted_calls(int* failed) {
  return locked([&](const Attachment& a) {
    camsim::SweepPoint& sweep = a.state->sweep;
    if (failed != nullptr)
      *failed = static_cast<int>(std::atomic_ref<std::uint32_t>(sweep.failed).load());
    return static_cast<long>(std::atomic_ref<std::int64_t>(sweep.counted).load());
  });
}

CAMSIM_API int camsim_inject_stall(camsim_command command) {
  if (command != CAMSIM_CREATE_OVERLAY && command != CAMSIM_DESTROY_OVERLAY &&
      command != CAMSIM_SUBMIT_BUFFER)
    return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    a.state->stall_armed[command] = 1;
    return 0L;
  }));
}

CAMSIM_API int camsim_stalled_count(void) {
  const Attachment* a = camsim::attach();
  if (a == nullptr) return -1;
  return static_cast<int>(std::atomic_ref<uint32_t>(a->state->stalled).load());
}

CAMSIM_API int camsim_read_palette(unsigned int bank, cam_palette_color* entries,
                                   uint8_t written[CAMSIM_PALETTE_ENTRIES]) {
  if (bank > 1) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    if (entries != nullptr)
      std::memcpy(entries, a.state->palette[bank], sizeof a.state->palette[bank]);
    if (written != nullptr)
      std::memcpy(written, a.state->palette_written[bank], sizeof a.state->palette_written[bank]);
    return 0L;
  }));
}

CAMSIM_API int camsim_set_resolution(unsigned int channel, uint32_t width, uint32_t height) {
  if (channel >= CAMSIM_NBR_CHANNELS) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    a.state->resolution[channel][0] = width;
    a.state->resolution[channel][1] = height;
    return 0L;
  }));
}

CAMSIM_API int camsim_last_stream_config(int* node, uint32_t* channel_key) {
  return static_cast<int>(locked([&](const Attachment& a) {
    if (a.state->last_config_node < 0) return static_cast<long>(fail(ENOENT));
    if (node != nullptr) *node = a.state->last_config_node;
    if (channel_key != nullptr) *channel_key = a.state->last_config_key;
    return 0L;
  }));
}

CAMSIM_API int camsim_set_overlay_limit(int limit) {
  if (limit < 1 || limit > CAMSIM_MAX_OVERLAYS) return fail(EINVAL);
  return static_cast<int>(locked([&](const Attachment& a) {
    a.state->overlay_limit = static_cast<uint32_t>(limit);
    return 0L;
  }));
}

CAMSIM_API int camsim_set_galcore(int present) {
  return static_cast<int>(locked([&](const Attachment& a) {
    a.state->galcore = present != 0;
    return 0L;
  }));
}

}  // extern "C"
