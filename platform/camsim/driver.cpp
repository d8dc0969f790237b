// The driver commands: record checks, overlays and their buffer rings, the
// source list, the palette banks and the stream configuration.
#include "driver.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "zantrel-base/io.h"

namespace camsim {
namespace {

constexpr std::uint32_t kNormalizedMax = 16384;
constexpr std::int32_t kType1Bit = 6;
constexpr int kOverlayNode = 0;  // "/dev/cam0"
constexpr std::int32_t kTypeYcbcrAlpha = 8;

// Stops the calling client half way through a command, holding the lock,
// when a test armed a stall for it. Only a kill ends it.
void stall_point(SharedState& s, camsim_command cmd) {
  if (s.stall_armed[cmd] == 0) return;
  s.stall_armed[cmd] = 0;
  std::atomic_ref<std::uint32_t>(s.stalled).fetch_add(1);
  for (;;) pause();
}

bool position_valid(const internal_overlay& r, std::uint32_t width, std::uint32_t height) {
  if (r.visible_width > width || r.visible_height > height) return false;
  if (r.coord_type == OVERLAY_COORDS_NORMALIZED && (r.x > kNormalizedMax || r.y > kNormalizedMax))
    return false;
  return true;
}

template <typename Word, std::size_t N>
bool all_zero(const Word (&words)[N]) {
  for (Word w : words)
    if (w != 0) return false;
  return true;
}

// Reserved words are zero, palette colours belong to 1-bit overlays only,
// and the luma/chroma/alpha planes need even sizes (a chroma pair per 2 x 2).
bool record_valid(const internal_overlay& r) {
  if (!all_zero(r.reserved1) || r.reserved2 != 0) return false;
  if (r.type != kType1Bit && !all_zero(r.palette_colors)) return false;
  return r.type != kTypeYcbcrAlpha || (r.width % 2 == 0 && r.height % 2 == 0);
}

std::uint32_t new_id(SharedState& s) {
  for (;;) {
    std::uint32_t id = s.next_id;
    if (id == 0 || id > kMaxId) id = 1;
    s.next_id = id + 1;
    if (find_overlay(s, id) == nullptr) return id;
  }
}

// A new buffer holds CAMSIM_FRESH_BYTE throughout, as a driver that does not
// clear its buffers leaves whatever was there: code that relies on zeros
// shows it.
void fill_fresh(const Attachment& a, const BufferSlot& b) {
  static const std::vector<std::uint8_t> pattern(64 * 1024, CAMSIM_FRESH_BYTE);
  const std::size_t length = std::size_t{b.pages} * kPage;
  for (std::size_t done = 0; done < length;) {
    const std::size_t chunk = std::min(pattern.size(), length - done);
    if (!zantrel::pwrite_all(a.fd, pattern.data(), chunk, static_cast<off_t>(b.offset + done))) {
      return;  // the pages stay as they were: only the pattern is lost
    }
    done += chunk;
  }
}

int create_overlay(const Attachment& a, internal_overlay& r) {
  SharedState& s = *a.state;
  if (r.type < 0 || r.type > 8 || r.width == 0 || r.height == 0 || r.nbr_buffers < 1 ||
      r.nbr_buffers > CAMSIM_MAX_BUFFERS || r.palette_bank > 1 || !record_valid(r) ||
      !position_valid(r, r.width, r.height))
    return -EINVAL;
  const std::uint64_t bytes = buffer_bytes(r.type, r.width, r.height);
  const std::uint64_t pages = bytes == 0 ? 1 : (bytes + kPage - 1) / kPage;
  if (pages * r.nbr_buffers > kArenaPages) return -ENOMEM;

  OverlaySlot* slot = nullptr;
  std::uint32_t live = 0;
  for (auto& o : s.overlays) {
    if (o.live != 0)
      ++live;
    else if (slot == nullptr)
      slot = &o;
  }
  if (slot == nullptr || live >= s.overlay_limit) return -ENOMEM;

  BufferSlot buffers[CAMSIM_MAX_BUFFERS] = {};
  for (std::uint32_t i = 0; i < r.nbr_buffers; ++i) {
    buffers[i].offset = alloc_pages(s, static_cast<std::uint32_t>(pages));
    buffers[i].pages = static_cast<std::uint32_t>(pages);
    if (buffers[i].offset == 0) {
      for (std::uint32_t j = 0; j < i; ++j) free_pages(a, buffers[j].offset, buffers[j].pages);
      return -ENOMEM;
    }
  }
  for (std::uint32_t i = 0; i < r.nbr_buffers; ++i) fill_fresh(a, buffers[i]);
  r.id = new_id(s);
  r.buffer_size = static_cast<std::uint32_t>(bytes);
  slot->rec = r;
  std::memcpy(slot->buffers, buffers, sizeof buffers);
  slot->shown = -1;
  slot->submit_count = 0;
  slot->last_param = 0;
  stall_point(s, CAMSIM_CREATE_OVERLAY);
  slot->live = 1;  // last: until here a dead client leaves no overlay behind
  return 0;
}

int modify_overlay(SharedState& s, const internal_overlay& r) {
  OverlaySlot* o = find_overlay(s, r.id);
  if (o == nullptr || !all_zero(r.reserved1) || r.reserved2 != 0 ||
      !position_valid(r, o->rec.width, o->rec.height))
    return -EINVAL;
  o->rec.x = r.x;
  o->rec.y = r.y;
  o->rec.visible_width = r.visible_width;
  o->rec.visible_height = r.visible_height;
  o->rec.coord_type = r.coord_type;
  return 0;
}

int submit_buffer(SharedState& s, const cam_buffer_submit& b) {
  OverlaySlot* o = find_overlay(s, b.id);
  if (o == nullptr) return -EINVAL;
  for (std::uint32_t i = 0; i < o->rec.nbr_buffers; ++i) {
    // Only a buffer that get-buffer handed out, and that was not submitted
    // since, belongs to the submitter.
    if (o->buffers[i].offset != b.offset || o->buffers[i].held == 0) continue;
    stall_point(s, CAMSIM_SUBMIT_BUFFER);
    o->buffers[i].held = 0;
    // Showing this buffer is what releases the one shown before.
    o->shown = static_cast<std::int32_t>(i);
    ++o->submit_count;
    o->last_param = b.param;
    return 0;
  }
  return -EINVAL;
}

int get_buffer(SharedState& s, const cam_buffer_query& q) {
  OverlaySlot* o = find_overlay(s, q.id);
  if (o == nullptr || !all_zero(q.reserved)) return -EINVAL;
  std::uint32_t pick = 0;
  if (o->rec.nbr_buffers > 1) {
    // The buffer handed out longest ago among those not on screen: a writer
    // never fills the shown buffer, and a ring of 3 has a spare while
    // another is still being filled.
    bool found = false;
    for (std::uint32_t i = 0; i < o->rec.nbr_buffers; ++i) {
      if (static_cast<std::int32_t>(i) == o->shown) continue;
      if (!found || o->buffers[i].handed_seq < o->buffers[pick].handed_seq) pick = i;
      found = true;
    }
  }
  o->buffers[pick].handed_seq = ++s.seq;
  o->buffers[pick].held = 1;
  return static_cast<int>(o->buffers[pick].offset);
}

int destroy_overlay(const Attachment& a, std::uint32_t id) {
  SharedState& s = *a.state;
  OverlaySlot* o = find_overlay(s, id);
  if (o == nullptr) return -EINVAL;
  o->live = 0;  // first: a dead client leaves no live overlay without buffers
  for (auto& src : s.sources)
    if (src == id) src = 0;
  stall_point(s, CAMSIM_DESTROY_OVERLAY);
  for (std::uint32_t i = 0; i < o->rec.nbr_buffers && i < CAMSIM_MAX_BUFFERS; ++i)
    free_pages(a, o->buffers[i].offset, o->buffers[i].pages);
  return 0;
}

int source_params(SharedState& s, const cam_source_params& p) {
  if ((p.operation != CAM_SOURCE_ADD && p.operation != CAM_SOURCE_REMOVE) || !all_zero(p.reserved))
    return -EINVAL;
  if (find_overlay(s, p.id) == nullptr) return -EINVAL;
  std::uint32_t* place = nullptr;
  for (auto& src : s.sources)
    if (src == p.id) place = &src;
  if (p.operation == CAM_SOURCE_REMOVE) {
    if (place == nullptr) return -ENOENT;
    *place = 0;
    return 0;
  }
  if (place != nullptr) return 0;
  for (auto& src : s.sources)
    if (src == 0) {
      src = p.id;
      return 0;
    }
  return -ENOBUFS;
}

int set_palette_color(SharedState& s, const cam_palette_color& c) {
  if (c.index >= CAMSIM_PALETTE_ENTRIES || c.bank > 1 || !all_zero(c.reserved)) return -EINVAL;
  s.palette[c.bank][c.index] = c;
  s.palette_written[c.bank][c.index] = 1;
  return 0;
}

// The channel of a stream configuration key, or -1.
int channel_of_key(std::uint32_t key) {
  if ((key & 0xFFFF00FFu) != 0) return -1;
  const std::uint32_t high = key >> 8;
  if (high == 0xFF) return 0;
  return high < CAMSIM_NBR_CHANNELS - 1 ? static_cast<int>(high) + 1 : -1;
}

template <typename Record>
bool copy_in(Record& rec, const void* arg) {
  if (arg == nullptr) return false;
  std::memcpy(&rec, arg, sizeof rec);
  return true;
}

}  // namespace

int node_of_path(const char* path) {
  if (path == nullptr) return -1;
  const std::string_view p(path);
  if (p == "/dev/camquad") return CAMSIM_NODE_CAMQUAD;
  if (!p.starts_with("/dev/cam")) return -1;
  const std::string_view n = p.substr(8);
  if (n.empty() || n.size() > 2 || (n.size() == 2 && n[0] == '0')) return -1;
  int value = 0;
  for (char c : n) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value <= 14 ? value : -1;
}

bool is_gpu_path(const char* path) {
  return path != nullptr && std::string_view(path) == "/dev/galcore";
}

camsim_command command_of(unsigned long request) {
  // The kernel takes the command as 32 bits, whatever the caller widened.
  switch (static_cast<std::uint32_t>(request)) {
    case CAM_IOC_CREATE_OVERLAY:
      return CAMSIM_CREATE_OVERLAY;
    case CAM_IOC_MODIFY_OVERLAY:
      return CAMSIM_MODIFY_OVERLAY;
    case CAM_IOC_GET_OVERLAY:
      return CAMSIM_GET_OVERLAY;
    case CAM_IOC_SUBMIT_BUFFER:
      return CAMSIM_SUBMIT_BUFFER;
    case CAM_IOC_GET_BUFFER:
      return CAMSIM_GET_BUFFER;
    case CAM_IOC_DESTROY_OVERLAY:
      return CAMSIM_DESTROY_OVERLAY;
    case CAM_IOC_SOURCE_PARAMS:
      return CAMSIM_SOURCE_PARAMS;
    case CAM_IOC_SET_PALETTE_COLOR:
      return CAMSIM_SET_PALETTE_COLOR;
    case CAM_IOC_GET_STREAM_CONFIG:
      return CAMSIM_GET_STREAM_CONFIG;
    case CAM_IOC_RETURN_STREAM_CONFIG:
      return CAMSIM_RETURN_STREAM_CONFIG;
    default:
      return CAMSIM_UNKNOWN_COMMAND;
  }
}

std::uint64_t buffer_bytes(std::int32_t type, std::uint32_t width, std::uint32_t height) {
  const std::uint64_t w = width, h = height;
  switch (type) {
    case 0:
      return (w * h) / 2;
    case 1:
      return (w * h * 3) / 2;
    case 2:
      return w * h;
    case 3:
      return w * h * 2;
    case 4:
      return w * h * 4;
    case 5:
      return w * h;
    case 6:
      return ((w + 7) >> 3) * h;
    case 7:
      return (w * h * 20) / 8;
    case 8:
      return w * h * 3;
    default:
      return 0;
  }
}

int run_command(const Attachment& a, int node, unsigned long request, void* arg) {
  const camsim_command cmd = command_of(request);
  const bool stream_config = cmd == CAMSIM_GET_STREAM_CONFIG || cmd == CAMSIM_RETURN_STREAM_CONFIG;

  // Records are copied in before and out after the locked part, as a kernel
  // copies from and to user memory; a bad pointer then cannot stop a client
  // while it holds the lock.
  internal_overlay rec{};
  cam_buffer_submit submit{};
  cam_buffer_query query{};
  cam_source_params source{};
  cam_palette_color color{};
  cam_stream_config config{};
  bool have_arg = true;
  switch (cmd) {
    case CAMSIM_CREATE_OVERLAY:
    case CAMSIM_MODIFY_OVERLAY:
    case CAMSIM_GET_OVERLAY:
      have_arg = copy_in(rec, arg);
      break;
    case CAMSIM_SUBMIT_BUFFER:
      have_arg = copy_in(submit, arg);
      break;
    case CAMSIM_GET_BUFFER:
      have_arg = copy_in(query, arg);
      break;
    case CAMSIM_SOURCE_PARAMS:
      have_arg = copy_in(source, arg);
      break;
    case CAMSIM_SET_PALETTE_COLOR:
      have_arg = copy_in(color, arg);
      break;
    case CAMSIM_GET_STREAM_CONFIG:
    case CAMSIM_RETURN_STREAM_CONFIG:
      have_arg = copy_in(config, arg);
      break;
    default:
      break;
  }

  int result = 0;
  {
    Lock lock(a);
    if (!lock.held()) return -EIO;
    SharedState& s = *a.state;
    ++s.calls[cmd];
    // Overlays, buffers and palettes belong to "/dev/cam0" alone.
    if (cmd == CAMSIM_UNKNOWN_COMMAND || (!stream_config && node != kOverlayNode)) return -ENOTTY;
    if (sweep_fails(CAMSIM_CALL_COMMAND)) return -s.sweep.error;
    if (s.faults[cmd].remaining > 0) {
      --s.faults[cmd].remaining;
      return -s.faults[cmd].error;
    }
    if (cmd == CAMSIM_MODIFY_OVERLAY && arg == nullptr) {
      ++s.refreshes;
      return 0;
    }
    if (!have_arg) return -EFAULT;
    switch (cmd) {
      case CAMSIM_CREATE_OVERLAY:
        result = create_overlay(a, rec);
        break;
      case CAMSIM_MODIFY_OVERLAY:
        result = modify_overlay(s, rec);
        break;
      case CAMSIM_GET_OVERLAY: {
        // The driver fills the record: the caller sends nothing but the id.
        internal_overlay only_id{};
        only_id.id = rec.id;
        const OverlaySlot* o = find_overlay(s, rec.id);
        if (std::memcmp(&rec, &only_id, sizeof rec) != 0)
          result = -EINVAL;
        else if (o != nullptr)
          rec = o->rec;
        else
          result = -ENOENT;
        break;
      }
      case CAMSIM_SUBMIT_BUFFER:
        result = submit_buffer(s, submit);
        break;
      case CAMSIM_GET_BUFFER:
        result = get_buffer(s, query);
        break;
      case CAMSIM_DESTROY_OVERLAY:
        // The id travels as the argument value itself.
        result =
            destroy_overlay(a, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(arg)));
        break;
      case CAMSIM_SOURCE_PARAMS:
        result = source_params(s, source);
        break;
      case CAMSIM_SET_PALETTE_COLOR:
        result = set_palette_color(s, color);
        break;
      case CAMSIM_GET_STREAM_CONFIG:
      case CAMSIM_RETURN_STREAM_CONFIG: {
        const int channel = channel_of_key(config.channel_key);
        if (cmd == CAMSIM_GET_STREAM_CONFIG) {
          s.last_config_node = node;
          s.last_config_key = config.channel_key;
        }
        if (channel < 0) {
          result = -EINVAL;
        } else if (cmd == CAMSIM_GET_STREAM_CONFIG) {
          config.max_width = s.resolution[channel][0];
          config.max_height = s.resolution[channel][1];
        }
        break;
      }
      default:
        result = -ENOTTY;
        break;
    }
  }
  if (result < 0) return result;
  switch (cmd) {
    case CAMSIM_CREATE_OVERLAY:
    case CAMSIM_GET_OVERLAY:
      std::memcpy(arg, &rec, sizeof rec);
      break;
    case CAMSIM_GET_STREAM_CONFIG:
      std::memcpy(arg, &config, sizeof config);
      break;
    default:
      break;
  }
  return result;
}

void* map_buffer(const Attachment& a, int node, int open_flags, void* address, std::size_t length,
                 int prot, int flags, off_t offset) {
  int error = 0;
  const int access = open_flags & O_ACCMODE;
  if (node != kOverlayNode) {
    error = ENODEV;
  } else if (access == O_WRONLY ||
             ((flags & MAP_TYPE) == MAP_SHARED && (prot & PROT_WRITE) != 0 && access != O_RDWR)) {
    error = EACCES;
  } else if (length == 0 || offset <= 0) {
    error = EINVAL;
  }
  if (error != 0) {
    errno = error;
    return MAP_FAILED;
  }
  Lock lock(a);
  if (!lock.held()) return MAP_FAILED;
  for (const auto& o : a.state->overlays) {
    if (o.live != 1) continue;
    for (std::uint32_t i = 0; i < o.rec.nbr_buffers && i < CAMSIM_MAX_BUFFERS; ++i) {
      const BufferSlot& b = o.buffers[i];
      if (b.offset != static_cast<std::uint64_t>(offset) || b.handed_seq == 0) continue;
      if (length > std::size_t{b.pages} * kPage) break;
      // Mapped under the lock, so the buffer cannot be freed in between.
      return libc_mmap(address, length, prot, flags, a.fd, offset);
    }
  }
  errno = EINVAL;
  return MAP_FAILED;
}

}  // namespace camsim
