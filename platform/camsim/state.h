// The simulated driver's shared state: its layout in the shared-memory file,
// how a process attaches to it, and the robust lock that guards it.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "camsim.h"

namespace camsim {

inline constexpr std::uint32_t kMagic = 0x4D495343u;  // "CSIM"
inline constexpr std::uint32_t kLayoutVersion = 5;
inline constexpr std::size_t kPage = 4096;
inline constexpr std::size_t kArenaPages = CAMSIM_ARENA_BYTES / kPage;
inline constexpr std::uint32_t kMaxId = 0x7FFFFFFFu;  // ids stay positive as int32

struct BufferSlot {
  std::uint32_t offset;  // file offset of the first page; 0 = unused slot
  std::uint32_t pages;
  std::uint64_t handed_seq;  // when it was last handed out; 0 = never
  std::uint32_t held;        // 1 from get-buffer until the buffer is submitted
  std::uint32_t unused;
};

// A live overlay is one whose `live` is 1. Commands set `live` last when
// they create and clear it first when they destroy, so a client that dies
// half way never leaves a live overlay with half-made buffers; the arena's
// page map is rebuilt from the live overlays when that happens.
struct OverlaySlot {
  std::uint32_t live;
  std::int32_t shown;  // index into buffers, -1 none
  internal_overlay rec;
  BufferSlot buffers[CAMSIM_MAX_BUFFERS];
  std::uint32_t submit_count;
  std::uint32_t last_param;
};

struct Fault {
  std::int32_t remaining;
  std::int32_t error;
};

// One failure point of a sweep: the calls of the chosen kinds are counted,
// from every process and without the lock, and the `fail_at`-th fails.
struct SweepPoint {
  std::uint32_t kinds;  // CAMSIM_CALL_* bits; 0: not counting
  std::int32_t error;
  std::int64_t fail_at;  // 0: count only
  std::int64_t counted;
  std::uint32_t failed;  // 1 once the chosen call failed
  std::uint32_t unused;
};

struct SharedState {
  std::uint32_t magic;  // written last when the file is initialised
  std::uint32_t layout_version;
  std::uint64_t file_size;
  pthread_mutex_t lock;

  std::uint32_t next_id;
  std::uint32_t overlay_limit;  // live overlays allowed, at most CAMSIM_MAX_OVERLAYS
  std::uint64_t seq;
  OverlaySlot overlays[CAMSIM_MAX_OVERLAYS];
  std::uint32_t sources[CAMSIM_SOURCE_SLOTS];  // overlay ids, 0 = free place
  cam_palette_color palette[2][CAMSIM_PALETTE_ENTRIES];
  std::uint8_t palette_written[2][CAMSIM_PALETTE_ENTRIES];
  std::uint32_t resolution[CAMSIM_NBR_CHANNELS][2];
  std::uint32_t galcore;

  std::int32_t last_config_node;  // -1 until a stream configuration get
  std::uint32_t last_config_key;
  std::uint64_t calls[CAMSIM_NBR_COMMANDS];
  std::uint64_t refreshes;
  std::uint64_t opens;
  Fault faults[CAMSIM_NBR_COMMANDS];
  std::uint32_t stall_armed[CAMSIM_NBR_COMMANDS];
  std::uint32_t stalled;  // accessed atomically, also without the lock
  SweepPoint sweep;

  std::uint8_t page_map[kArenaPages / 8];  // one bit a page, set = in use
};

inline constexpr std::size_t kArenaStart = (sizeof(SharedState) + kPage - 1) / kPage * kPage;
inline constexpr std::size_t kFileSize = kArenaStart + CAMSIM_ARENA_BYTES;
static_assert(kFileSize < 0x80000000u, "buffer offsets must fit a positive ioctl result");
static_assert(kArenaStart > 0, "offset 0 must never be a buffer");

// This process's view of the state file and of the nodes' files.
struct Attachment {
  int fd;
  SharedState* state;
  dev_t dev;
  ino_t ino;
  ino_t node_ino[CAMSIM_NBR_NODES];  // on the same device as the state file
};

// Attaches on first use, creating and initialising the state file when it
// does not exist; nullptr (errno set) when that fails.
const Attachment* attach();
// Attaches only when the state file already exists.
const Attachment* attach_existing();

// The node (0 to CAMSIM_NBR_NODES - 1) whose descriptor `fd` is, or -1.
int node_of_descriptor(int fd);

// Opens a new descriptor of a node (flags of open()).
int open_node_descriptor(int node, int flags);

// Whether this call, of one CAMSIM_CALL_* kind, is the one a sweep fails;
// sets errno to the sweep's error when it is.
bool sweep_fails(unsigned kind);

// The C library's shm_open and ftruncate, for the simulator's own files:
// they are never counted by a sweep.
int libc_shm_open(const char* name, int flags, mode_t mode);
int libc_ftruncate(int fd, off_t length);

// The C library's mmap, for the simulator's own mappings.
void* libc_mmap(void* address, std::size_t length, int prot, int flags, int fd, off_t offset);

// Brings the state back to its defaults; the caller holds the lock.
void reset_locked(const Attachment& a);

// Releases pages in the arena and gives their memory back (they read as
// zeros afterwards).
void free_pages(const Attachment& a, std::uint32_t offset, std::uint32_t pages);
// Finds and marks `pages` free pages in a row; the file offset or 0.
std::uint32_t alloc_pages(SharedState& s, std::uint32_t pages);

// Scoped hold of the driver lock. When the last holder died, the state is
// repaired before the lock is handed on.
class Lock {
 public:
  explicit Lock(const Attachment& a);
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  bool held() const { return held_; }

 private:
  const Attachment& a_;
  bool held_ = false;
};

// Makes the invariants true again after a holder died half way.
void repair_locked(const Attachment& a);

OverlaySlot* find_overlay(SharedState& s, std::uint32_t id);

}  // namespace camsim
