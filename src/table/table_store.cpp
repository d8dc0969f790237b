// The main shared table "/ovl_table": creation, removal of every table,
// mapping, and the robust process-shared lock.
#include <fcntl.h>
#include <glob.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "common/log.h"
#include "table.h"
#include "zantrel-base/unique_fd.h"
#include "zantrel-internal/table_check.h"

namespace zantrel::table {
namespace {

constexpr mode_t kCreateMode = 0600;
constexpr mode_t kOpenMode = 0666;

// Unlinks the new table unless creation got through.
class CreationGuard {
 public:
  ~CreationGuard() {
    if (!done_) {
      shm_unlink(kTableName);
    }
  }
  void done() { done_ = true; }

 private:
  bool done_ = false;
};

class MutexAttr {
 public:
  MutexAttr() : initialised_(pthread_mutexattr_init(&attr_) == 0) {}
  MutexAttr(const MutexAttr&) = delete;
  MutexAttr& operator=(const MutexAttr&) = delete;
  ~MutexAttr() { destroy(); }
  [[nodiscard]] bool initialised() const { return initialised_; }
  pthread_mutexattr_t* get() { return &attr_; }
  int destroy() {
    return std::exchange(initialised_, false) ? pthread_mutexattr_destroy(&attr_) : 0;
  }

 private:
  pthread_mutexattr_t attr_{};
  bool initialised_;
};

int init_mutex(overlay_table* table) {
  MutexAttr attr;
  if (!attr.initialised()) {
    log_message(LOG_ERR, "libzantrel: Mutex error in overlay table\n");
    return -1;
  }
  if (pthread_mutexattr_setpshared(attr.get(), PTHREAD_PROCESS_SHARED) != 0 ||
      pthread_mutexattr_setrobust(attr.get(), PTHREAD_MUTEX_ROBUST) != 0 ||
      pthread_mutex_init(table_mutex(table), attr.get()) != 0) {
    return -1;
  }
  return attr.destroy() == 0 ? 0 : -1;
}

void fill_new_table(overlay_table* table) {
  std::memset(table->source_handles, 0xFF, sizeof table->source_handles);
  std::memset(table->global_handles, 0xFF, sizeof table->global_handles);
  std::memset(table->channel_handles, 0xFF, sizeof table->channel_handles);
  const uint32_t* colors = nullptr;
  int first = 0;
  palette_get_default(&colors, &first);
  for (int i = first; i < OVERLAY_PALETTE_SIZE; ++i) {
    uint32_t argb = colors[i];
    table->palette_copy[i] =
        overlay_palette_color{static_cast<uint8_t>(argb >> 24), static_cast<uint8_t>(argb >> 16),
                              static_cast<uint8_t>(argb >> 8), static_cast<uint8_t>(argb), 0};
  }
  table->version = 0;
}

overlay_table* map_fd(int fd) {
  // A table that another process truncated would fault on access.
  struct stat st {};
  if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(kTableSize)) {
    return nullptr;
  }
  void* mapping = mmap(nullptr, kTableSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return mapping == MAP_FAILED ? nullptr : static_cast<overlay_table*>(mapping);
}

}  // namespace

int _remove_all_tables() {
  GlobResult found;
  // GLOB_ERR: an unreadable /dev/shm is a failure, not "no tables".
  int rc = glob(kTableGlob, GLOB_ERR, nullptr, &found.paths);
  if (rc == GLOB_NOMATCH) {
    return 0;
  }
  if (rc != 0) {
    log_message(LOG_ERR, "libzantrel: Error when searching for old overlay table\n");
    if (rc == GLOB_ABORTED) {
      log_message(LOG_ERR, "libzantrel: glob: Filesystem problem\n");
    } else if (rc == GLOB_NOSPACE) {
      log_message(LOG_ERR, "libzantrel: glob: no dynamic memory\n");
    }
    return -1;
  }
  // A failure does not stop the sweep, but it is the result: a table left
  // behind is not a removal.
  int result = 0;
  for (std::size_t i = 0; i < found.paths.gl_pathc; ++i) {
    const char* path = found.paths.gl_pathv[i];
    if (std::strcmp(path, kTablePath) == 0) {
      if (shm_unlink(kTableName) != 0 && errno != ENOENT) {
        log_message(LOG_ERR, "libzantrel: could not remove main overlay table file (%s). %s\n",
                    kTableName, error_text(errno));
        result = -1;
      }
    } else if (shm_unlink(path + kShmDirLength) != 0 &&
               _stream_unlink_error(path + kShmDirLength) != kNoStreamTable) {
      result = -1;
    }
  }
  return result;
}

MappedTable map_table() {
  zantrel::UniqueFd fd(shm_open(kTableName, O_RDWR, kOpenMode));
  if (!fd) {
    if (errno != ENOENT) {
      log_message(LOG_WARNING, "libzantrel: Could not map main overlay table. %s\n",
                  error_text(errno));
    }
    return nullptr;
  }
  return MappedTable(map_fd(fd.get()));
}

int lock_table(overlay_table* table) {
  if (!mapped(table)) {
    return -EINVAL;
  }
  int rc = pthread_mutex_lock(table_mutex(table));
  if (rc == 0) {
    return kOk;
  }
  if (rc == EOWNERDEAD) {
    // The dead holder may have left a change half done; the tables are
    // mended before anyone works on them.
    rc = pthread_mutex_consistent(table_mutex(table));
    if (rc == 0) {
      repair_after_owner_death(table);
      return kOk;
    }
    log_message(LOG_ERR, "libzantrel: Table owner died while mutex locked, could not recover.\n");
    return -rc;
  }
  log_message(LOG_ERR, "libzantrel: Table mutex internal error: %s\n", error_text(rc));
  return -rc;
}

}  // namespace zantrel::table

using namespace zantrel;         // NOLINT(google-build-using-namespace)
using namespace zantrel::table;  // NOLINT(google-build-using-namespace)
using zantrel::log_message;

extern "C" {

int overlay_table_init() {
  // Tables of an earlier run that cannot be found or removed would mix with
  // the new ones.
  if (_remove_all_tables() != 0) {
    return -1;
  }

  zantrel::UniqueFd fd(shm_open(kTableName, O_RDWR | O_CREAT, kCreateMode));
  if (!fd) {
    log_message(LOG_ERR, "libzantrel: error initialising the table: %s\n\n",
                zantrel::error_text(errno));
    return -1;
  }
  // Nothing of a failed creation stays behind in /dev/shm.
  CreationGuard guard;
  if (ftruncate(fd.get(), kTableSize) != 0) {
    log_message(LOG_ERR, "libzantrel: error initialising the table: %s\n\n",
                zantrel::error_text(errno));
    return -1;
  }
  MappedTable table(map_fd(fd.get()));
  if (!table) {
    return -1;
  }
  if (init_mutex(table.get()) != 0) {
    return -1;
  }
  {
    // Filled under its own lock, version last, so that a process that maps
    // the table early never sees it half made.
    TableLock lock(table.get());
    fill_new_table(table.get());
  }
  table.reset();
  if (fchmod(fd.get(), kOpenMode) != 0) {
    return -1;
  }
  guard.done();
  return 0;
}

int overlay_table_deinit() { return _remove_all_tables(); }

int overlay_table_exists() {
  zantrel::UniqueFd fd(shm_open(kTableName, O_RDWR, kOpenMode));
  return fd ? 1 : 0;
}

overlay_table* overlay_table_map() {
  overlay_table* table = map_table().release();
  return table != nullptr ? table : static_cast<overlay_table*>(MAP_FAILED);
}

int overlay_table_unmap(overlay_table* table) {
  if (!mapped(table)) {
    errno = EINVAL;
    return -1;
  }
  return munmap(table, kTableSize);
}

int overlay_table_lock(overlay_table* table) { return -lock_table(table); }

int overlay_table_try_lock(overlay_table* table) {
  return mapped(table) ? pthread_mutex_trylock(table_mutex(table)) : EINVAL;
}

int overlay_table_unlock(overlay_table* table) {
  return mapped(table) ? pthread_mutex_unlock(table_mutex(table)) : EINVAL;
}

}  // extern "C"
