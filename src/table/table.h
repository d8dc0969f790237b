// Shared table internals: layout checks, handle-set rules, stream-table
// helpers and the owners that unmap and unlock on every path.
#pragma once

#include <glob.h>
#include <pthread.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "common/result.h"
#include "zantrel.h"

// Every process maps these images at any address; their byte layout is the
// camera's. Only table_mutex follows the platform's pthread_mutex_t size.
static_assert(sizeof(overlay_palette_color) == 8);
static_assert(offsetof(overlay_palette_color, flag) == 4);
static_assert(sizeof(overlay_entry_data) == 644);
static_assert(offsetof(overlay_entry_data, type) == 4);
static_assert(offsetof(overlay_entry_data, width) == 8);
static_assert(offsetof(overlay_entry_data, height) == 12);
static_assert(offsetof(overlay_entry_data, description) == 16);
static_assert(sizeof(overlay_table_entry) == 652);
static_assert(offsetof(overlay_table_entry, in_use) == 4);
static_assert(offsetof(overlay_table_entry, data) == 8);
// priority, ignore_stream_filter and legacy as the table reads them.
static_assert(offsetof(overlay_table_entry, data.description.ovl.priority) == 24);
static_assert(offsetof(overlay_table_entry, data.description.ovl.ignore_stream_filter) == 28);
static_assert(offsetof(overlay_table_entry, data.description.ovl.legacy) == 100);
static_assert(offsetof(overlay_table, version) == 0);
static_assert(offsetof(overlay_table, source_handles) == 4);
static_assert(offsetof(overlay_table, global_handles) == 12);
static_assert(offsetof(overlay_table, channel_handles) == 20);
static_assert(offsetof(overlay_table, entries) == 148);
static_assert(offsetof(overlay_table, palette_copy) == 65348);
static_assert(offsetof(overlay_table, table_mutex) == 65476);
static_assert(sizeof(overlay_table) == 65476 + sizeof(pthread_mutex_t));
#if defined(__arm__) && !defined(__aarch64__)
static_assert(sizeof(overlay_table) == 65500, "the camera's main table is 65500 bytes");
#endif
static_assert(sizeof(overlay_stream_table) == 16);
static_assert(offsetof(overlay_stream_table, version) == 4);
static_assert(offsetof(overlay_stream_table, handles) == 8);

namespace zantrel::table {

constexpr int kEntries = OVERLAY_MAX_HANDLES;
constexpr int kPlaces = OVERLAY_SET_PLACES;
constexpr unsigned kChannels = OVERLAY_NBR_CHANNELS;
constexpr int kWorkPlaces = 24;
constexpr int8_t kEmpty = -1;
constexpr std::size_t kTableSize = sizeof(overlay_table);
constexpr std::size_t kStreamTableSize = sizeof(overlay_stream_table);
constexpr const char* kTableName = "/ovl_table";
constexpr const char* kTableGlob = "/dev/shm/ovl_*";
constexpr const char* kTablePath = "/dev/shm/ovl_table";
constexpr const char* kStreamPathPrefix = "/dev/shm/ovl_strm_";
// A file under /dev/shm names the object of its path less "/dev/shm".
constexpr std::size_t kShmDirLength = 8;

using HandleSet = std::span<int8_t>;
using StreamName = std::array<char, 30>;

inline pthread_mutex_t* table_mutex(overlay_table* table) {
  // Kept as bytes in the record; 4-byte aligned at its fixed offset, which is
  // all the mutex's futex word needs.
  return reinterpret_cast<pthread_mutex_t*>(table->table_mutex);
}

// For tables handed in through the C interface, which may be either.
inline bool mapped(const void* table) { return table != nullptr && table != MAP_FAILED; }

// Handle index (handle - 1) of a handle 1 to 100, or -1.
inline int handle_index(int handle) { return handle >= 1 && handle <= kEntries ? handle - 1 : -1; }

// A set byte that names an entry: 0 to 99. Other bytes that another process
// may have written (100 to 127, negative) are treated as empty places.
inline bool names_entry(int8_t value) { return value >= 0 && value < kEntries; }

inline bool in_use(const overlay_table* table, int index) {
  return table->entries[index].in_use != 0;
}

inline int32_t priority(const overlay_table* table, int index) {
  return table->entries[index].data.description.ovl.priority;
}

// The change counters are read without the lock by other processes.
inline void raise_version(uint32_t& version) {
  std::atomic_ref<uint32_t> counter(version);
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}
inline uint32_t read_version(uint32_t& version) {
  return std::atomic_ref<uint32_t>(version).load(std::memory_order_acquire);
}

// Handle-set rules, shared by the main table's sets, the stream sets and the
// working list of a stream's gathering.
int _add_handle_to_array(overlay_table* table, int index, HandleSet set);
int _remove_handle_from_array(overlay_table* table, int index, HandleSet set);
void _sort_handle_array(overlay_table* table, std::span<int8_t, kPlaces> set);
int _overlay_entry_ok(const overlay_table_entry* entry, unsigned filter);

// Store.
int _remove_all_tables();

// The "/dev/shm/ovl_*" files of one search, freed on every path.
struct GlobResult {
  glob_t paths{};
  GlobResult() = default;
  GlobResult(const GlobResult&) = delete;
  GlobResult& operator=(const GlobResult&) = delete;
  ~GlobResult() { globfree(&paths); }
};

// Streams.
StreamName stream_name(int stream);
int _unmap_stream_table(overlay_stream_table* stream_table);
// 0, or -1 (logged) when the search failed or a stream table naming the
// handle could not be reached; stream_count then counts what is left.
int _remove_handle_from_streams(overlay_table* table, int index);
// Stream numbers a stream table can name: "/ovl_strm_0" and up.
inline bool valid_stream(int stream) { return stream >= 0; }
int _stream_unlink_error(const char* name);

// Owners of a mapping.
struct TableUnmapper {
  void operator()(overlay_table* table) const { overlay_table_unmap(table); }
};
using MappedTable = std::unique_ptr<overlay_table, TableUnmapper>;

struct StreamUnmapper {
  void operator()(overlay_stream_table* stream_table) const { _unmap_stream_table(stream_table); }
};
using MappedStream = std::unique_ptr<overlay_stream_table, StreamUnmapper>;

// Null when the object cannot be mapped (map_table() logs why, unless there
// is no table); map_stream(int) sets errno to EINVAL for a stream number no
// stream table can have.
MappedTable map_table();
MappedStream map_stream(const char* name);
MappedStream map_stream(int stream);

// overlay_table_lock() inside: 0 when the caller holds the lock, -errno
// (logged) otherwise.
int lock_table(overlay_table* table);

// Holds table_mutex for one scope; a failed lock was already logged.
class TableLock {
 public:
  explicit TableLock(overlay_table* table) : table_(table), result_(lock_table(table)) {}
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
  ~TableLock() {
    if (result_ == 0) {
      overlay_table_unlock(table_);
    }
  }
  [[nodiscard]] int result() const { return result_; }

 private:
  overlay_table* table_;
  int result_;
};

}  // namespace zantrel::table
