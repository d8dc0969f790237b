// Attaching to the shared driver state, its defaults, the buffer arena and
// the robust lock with its repair.
#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>

namespace camsim {
namespace {

std::mutex g_attach_mutex;
std::atomic<const Attachment*> g_attachment{nullptr};
Attachment g_storage;

bool page_used(const SharedState& s, std::size_t page) {
  return (s.page_map[page / 8] >> (page % 8)) & 1u;
}

void mark_pages(SharedState& s, std::size_t first, std::size_t count, bool used) {
  for (std::size_t p = first; p < first + count; ++p) {
    const auto bit = static_cast<std::uint8_t>(1u << (p % 8));
    if (used)
      s.page_map[p / 8] |= bit;
    else
      s.page_map[p / 8] &= static_cast<std::uint8_t>(~bit);
  }
}

void punch(int fd, std::size_t offset, std::size_t length) {
  // Gives the pages back to tmpfs; they read as zeros afterwards. A failure
  // only costs memory, so it is not reported.
  (void)fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                  static_cast<off_t>(length));
}

// Fills a state that nobody else can be using yet (the caller holds the
// file lock of the state file and the magic is not valid).
void initialise(const Attachment& a) {
  SharedState& s = *a.state;
  std::memset(static_cast<void*>(&s), 0, sizeof s);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&s.lock, &attr);
  pthread_mutexattr_destroy(&attr);
  s.layout_version = kLayoutVersion;
  s.file_size = kFileSize;
  reset_locked(a);
  std::atomic_ref<std::uint32_t>(s.magic).store(kMagic, std::memory_order_release);
}

bool lock_file(int fd) {
  while (flock(fd, LOCK_EX) != 0)
    if (errno != EINTR) return false;
  return true;
}

std::string node_name(int node) { return "/camsim_node_" + std::to_string(node); }

// Every node is an empty file of its own, so that a node's descriptor says
// which node it is and gives no access to the driver's state.
bool make_node_file(int node, dev_t state_dev, ino_t& ino) {
  const int fd = libc_shm_open(node_name(node).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  struct stat st {};
  const bool ok = fstat(fd, &st) == 0 && st.st_dev == state_dev;
  if (ok) (void)fchmod(fd, 0666);  // every user's processes share them
  close(fd);
  ino = st.st_ino;
  return ok;
}

const Attachment* do_attach(bool create) {
  if (const Attachment* a = g_attachment.load(std::memory_order_acquire)) return a;
  std::lock_guard guard(g_attach_mutex);
  if (const Attachment* a = g_attachment.load(std::memory_order_acquire)) return a;

  const int fd =
      libc_shm_open(CAMSIM_STATE_NAME, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
  if (fd < 0) return nullptr;
  // The file lock makes creation and initialisation one step for every
  // process that attaches at the same time; it dies with its holder.
  if (!lock_file(fd)) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return nullptr;
  }
  struct stat st {};
  bool ok = fstat(fd, &st) == 0;
  const bool wrong_size = ok && static_cast<std::uint64_t>(st.st_size) != kFileSize;
  if (ok && wrong_size) ok = libc_ftruncate(fd, static_cast<off_t>(kFileSize)) == 0;
  if (ok && wrong_size) (void)fchmod(fd, 0666);  // every user's processes share it
  ino_t nodes[CAMSIM_NBR_NODES] = {};
  for (int n = 0; ok && n < CAMSIM_NBR_NODES; ++n) ok = make_node_file(n, st.st_dev, nodes[n]);
  void* map =
      ok ? libc_mmap(nullptr, kArenaStart, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (map == MAP_FAILED) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return nullptr;
  }
  g_storage = Attachment{fd, static_cast<SharedState*>(map), st.st_dev, st.st_ino, {}};
  std::copy(std::begin(nodes), std::end(nodes), g_storage.node_ino);
  SharedState& s = *g_storage.state;
  if (wrong_size ||
      std::atomic_ref<std::uint32_t>(s.magic).load(std::memory_order_acquire) != kMagic ||
      s.layout_version != kLayoutVersion || s.file_size != kFileSize)
    initialise(g_storage);
  flock(fd, LOCK_UN);
  g_attachment.store(&g_storage, std::memory_order_release);
  return &g_storage;
}

}  // namespace

const Attachment* attach() { return do_attach(true); }

bool sweep_fails(unsigned kind) {
  const Attachment* a = g_attachment.load(std::memory_order_acquire);
  if (a == nullptr) return false;  // no driver here, so no sweep either
  SweepPoint& sweep = a->state->sweep;
  if ((std::atomic_ref<std::uint32_t>(sweep.kinds).load(std::memory_order_acquire) & kind) == 0)
    return false;
  const std::int64_t n = std::atomic_ref<std::int64_t>(sweep.counted).fetch_add(1) + 1;
  if (n != std::atomic_ref<std::int64_t>(sweep.fail_at).load()) return false;
  std::atomic_ref<std::uint32_t>(sweep.failed).store(1);
  errno = sweep.error;
  return true;
}

const Attachment* attach_existing() { return do_attach(false); }

int node_of_descriptor(int fd) {
  struct stat st {};
  // Node files are empty; anything else is no node, without a look at the
  // driver's state.
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size != 0) return -1;
  const int saved = errno;
  const Attachment* a = attach_existing();
  errno = saved;
  if (a == nullptr || a->dev != st.st_dev) return -1;
  const ino_t* end = std::end(a->node_ino);
  const ino_t* found = std::find(std::begin(a->node_ino), end, st.st_ino);
  return found == end ? -1 : static_cast<int>(found - std::begin(a->node_ino));
}

int open_node_descriptor(int node, int flags) {
  const Attachment* a = attach();
  if (a == nullptr) return -1;
  {
    Lock lock(*a);
    if (lock.held()) ++a->state->opens;
  }
  // A descriptor of its own (not a dup) so that it behaves as a freshly
  // opened node: own file description, the caller's access mode.
  const int fd = libc_shm_open(node_name(node).c_str(), flags & O_ACCMODE, 0);
  if (fd >= 0 && (flags & O_CLOEXEC) == 0) {
    const int fdflags = fcntl(fd, F_GETFD);
    if (fdflags >= 0) (void)fcntl(fd, F_SETFD, fdflags & ~FD_CLOEXEC);
  }
  return fd;
}

void reset_locked(const Attachment& a) {
  SharedState& s = *a.state;
  std::memset(static_cast<void*>(s.overlays), 0, sizeof s.overlays);
  std::memset(s.sources, 0, sizeof s.sources);
  std::memset(static_cast<void*>(s.palette), 0, sizeof s.palette);
  std::memset(s.palette_written, 0, sizeof s.palette_written);
  for (auto& r : s.resolution) {
    r[0] = CAMSIM_DEFAULT_WIDTH;
    r[1] = CAMSIM_DEFAULT_HEIGHT;
  }
  s.galcore = 1;
  s.last_config_node = -1;
  s.last_config_key = 0;
  s.next_id = 1;
  s.overlay_limit = CAMSIM_MAX_OVERLAYS;
  s.seq = 0;
  std::memset(s.calls, 0, sizeof s.calls);
  s.refreshes = 0;
  s.opens = 0;
  std::memset(s.faults, 0, sizeof s.faults);
  std::memset(&s.sweep, 0, sizeof s.sweep);
  std::memset(s.stall_armed, 0, sizeof s.stall_armed);
  std::atomic_ref<std::uint32_t>(s.stalled).store(0);
  std::memset(s.page_map, 0, sizeof s.page_map);
  punch(a.fd, kArenaStart, CAMSIM_ARENA_BYTES);
}

std::uint32_t alloc_pages(SharedState& s, std::uint32_t pages) {
  std::size_t run = 0;
  for (std::size_t p = 0; p < kArenaPages; ++p) {
    run = page_used(s, p) ? 0 : run + 1;
    if (run == pages) {
      const std::size_t first = p + 1 - pages;
      mark_pages(s, first, pages, true);
      return static_cast<std::uint32_t>(kArenaStart + first * kPage);
    }
  }
  return 0;
}

void free_pages(const Attachment& a, std::uint32_t offset, std::uint32_t pages) {
  if (offset < kArenaStart || pages == 0) return;
  const std::size_t first = (offset - kArenaStart) / kPage;
  if (first + pages > kArenaPages) return;
  mark_pages(*a.state, first, pages, false);
  punch(a.fd, offset, std::size_t{pages} * kPage);
}

OverlaySlot* find_overlay(SharedState& s, std::uint32_t id) {
  if (id == 0) return nullptr;
  for (auto& o : s.overlays)
    if (o.live == 1 && o.rec.id == id) return &o;
  return nullptr;
}

namespace {

bool slot_consistent(const OverlaySlot& o) {
  if (o.rec.id == 0 || o.rec.id > kMaxId) return false;
  if (o.rec.nbr_buffers < 1 || o.rec.nbr_buffers > CAMSIM_MAX_BUFFERS) return false;
  if (o.shown < -1 || o.shown >= static_cast<std::int32_t>(o.rec.nbr_buffers)) return false;
  for (std::uint32_t i = 0; i < o.rec.nbr_buffers; ++i) {
    const BufferSlot& b = o.buffers[i];
    if (b.offset < kArenaStart || (b.offset - kArenaStart) % kPage != 0 || b.pages == 0)
      return false;
    if ((b.offset - kArenaStart) / kPage + b.pages > kArenaPages) return false;
  }
  return true;
}

}  // namespace

void repair_locked(const Attachment& a) {
  SharedState& s = *a.state;
  // Live overlays are the truth; everything else is derived from them again.
  std::memset(s.page_map, 0, sizeof s.page_map);
  for (auto& o : s.overlays) {
    if (o.live != 1) {
      o.live = 0;
      continue;
    }
    bool ok = slot_consistent(o) && find_overlay(s, o.rec.id) == &o;  // first of an id wins
    for (std::uint32_t i = 0; ok && i < o.rec.nbr_buffers; ++i) {
      const std::size_t first = (o.buffers[i].offset - kArenaStart) / kPage;
      for (std::size_t p = first; ok && p < first + o.buffers[i].pages; ++p) ok = !page_used(s, p);
    }
    if (!ok) {
      o.live = 0;
      continue;
    }
    for (std::uint32_t i = 0; i < o.rec.nbr_buffers; ++i)
      mark_pages(s, (o.buffers[i].offset - kArenaStart) / kPage, o.buffers[i].pages, true);
  }
  // Pages of a half-made or half-destroyed overlay are free again; make
  // them read as zeros like every other free page.
  std::size_t run_start = 0;
  for (std::size_t p = 0; p <= kArenaPages; ++p) {
    if (p < kArenaPages && !page_used(s, p)) continue;
    if (p > run_start) punch(a.fd, kArenaStart + run_start * kPage, (p - run_start) * kPage);
    run_start = p + 1;
  }
  for (std::size_t i = 0; i < CAMSIM_SOURCE_SLOTS; ++i) {
    bool keep = find_overlay(s, s.sources[i]) != nullptr;
    for (std::size_t j = 0; keep && j < i; ++j) keep = s.sources[j] != s.sources[i];
    if (!keep) s.sources[i] = 0;
  }
  if (s.next_id == 0 || s.next_id > kMaxId) s.next_id = 1;
  if (s.overlay_limit == 0 || s.overlay_limit > CAMSIM_MAX_OVERLAYS)
    s.overlay_limit = CAMSIM_MAX_OVERLAYS;
  // Only a lock holder can be stopped by a stall, and the holder is gone.
  std::atomic_ref<std::uint32_t>(s.stalled).store(0);
}

Lock::Lock(const Attachment& a) : a_(a) {
  const int rc = pthread_mutex_lock(&a_.state->lock);
  if (rc == EOWNERDEAD) {
    repair_locked(a_);
    pthread_mutex_consistent(&a_.state->lock);
    held_ = true;
  } else {
    held_ = rc == 0;
    if (!held_) errno = rc;
  }
}

Lock::~Lock() {
  if (held_) pthread_mutex_unlock(&a_.state->lock);
}

}  // namespace camsim
