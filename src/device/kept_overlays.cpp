// The process's list of hardware overlays whose destruction failed. It is a
// fixed array, so keeping an overlay never allocates, and it is guarded by
// its own mutex, taken only here and never while the table lock is needed.
#include "kept_overlays.h"

#include <cerrno>
#include <mutex>

#include "common/log.h"
#include "common/result.h"
#include "zantrel.h"

namespace zantrel::device {
namespace {

// The driver holds at most 256 overlays, so there can be no more to keep.
constexpr int kCapacity = 256;

struct KeptList {
  std::mutex mutex;
  int ids[kCapacity] = {};
  int count = 0;  // read without the mutex as a cheap test
};

KeptList& kept() {
  static KeptList list;
  return list;
}

// 0 when the overlay is gone: destroyed now, or unknown to the driver (EINVAL
// or ENOENT: someone else destroyed it, so keeping it would never end).
bool destroyed(int fd, int id) {
  if (o_destroy_overlay(fd, id) == 0) return true;
  return errno == EINVAL || errno == ENOENT;
}

int retry_locked(KeptList& list, int fd) {
  int still = 0;
  for (int i = 0; i < list.count; ++i) {
    if (!destroyed(fd, list.ids[i])) list.ids[still++] = list.ids[i];
  }
  list.count = still;
  return still;
}

}  // namespace

int destroy_or_keep(int fd, int id) {
  if (!has_overlay(id)) return 0;
  KeptList& list = kept();
  std::lock_guard guard(list.mutex);
  if (list.count > 0) retry_locked(list, fd);
  if (destroyed(fd, id)) return 0;
  if (list.count == kCapacity) {
    log_message(LOG_ERR, "libzantrel: Could not keep overlay %d for a later destroy\n", id);
    return -1;
  }
  list.ids[list.count++] = id;
  log_message(LOG_WARNING, "libzantrel: Overlay %d kept, it is destroyed at the next chance\n", id);
  return 1;
}

int destroy_kept(int fd) {
  KeptList& list = kept();
  if (__atomic_load_n(&list.count, __ATOMIC_RELAXED) == 0) return 0;
  std::lock_guard guard(list.mutex);
  return retry_locked(list, fd);
}

int kept_count() {
  KeptList& list = kept();
  std::lock_guard guard(list.mutex);
  return list.count;
}

}  // namespace zantrel::device
