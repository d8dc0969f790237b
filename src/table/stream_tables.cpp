// Stream tables "/ovl_strm_%d": one small shared object per stream holding
// that stream's set, and the queries that gather what a stream shows and what
// belongs to the video source.
#include <fcntl.h>
#include <glob.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "table.h"
#include "zantrel-base/unique_fd.h"

namespace zantrel::table {
namespace {

constexpr mode_t kStreamMode = 0666;

overlay_stream_table* map_stream_fd(int fd) {
  // Any process may have made an "ovl_" object of another size.
  struct stat st {};
  if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(kStreamTableSize)) {
    errno = EINVAL;
    return nullptr;
  }
  void* mapping = mmap(nullptr, kStreamTableSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return mapping == MAP_FAILED ? nullptr : static_cast<overlay_stream_table*>(mapping);
}

// Makes a new, empty stream table; false (logged) when it cannot.
bool create_stream_table(const char* name) {
  zantrel::UniqueFd fd(shm_open(name, O_RDWR | O_CREAT | O_EXCL, kStreamMode));
  if (!fd) {
    log_message(LOG_ERR, "libzantrel: error initialising the stream table: %s\n\n",
                error_text(errno));
    log_message(LOG_ERR, "libzantrel: Could not create stream overlay table\n");
    return false;
  }
  // The creation mode passes through the umask; every process that can use
  // the main table must be able to open its stream tables too.
  if (ftruncate(fd.get(), kStreamTableSize) != 0 || fchmod(fd.get(), kStreamMode) != 0) {
    log_message(LOG_ERR, "libzantrel: error initialising the stream table: %s\n\n",
                error_text(errno));
    fd.reset();
    shm_unlink(name);
    log_message(LOG_ERR, "libzantrel: Could not create stream overlay table\n");
    return false;
  }
  MappedStream stream_table(map_stream_fd(fd.get()));
  if (!stream_table) {
    fd.reset();
    shm_unlink(name);
    log_message(LOG_ERR, "libzantrel: Could not create stream overlay table\n");
    return false;
  }
  stream_table->active = 0;
  stream_table->version = 0;
  std::fill(std::begin(stream_table->handles), std::end(stream_table->handles), kEmpty);
  return true;
}

// Drops members whose entries became free, closing up the set.
void purge_stale_members(overlay_table* table, HandleSet set) {
  for (std::size_t place = 0; place < set.size(); ++place) {
    while (names_entry(set[place]) && !in_use(table, set[place])) {
      std::copy(set.begin() + static_cast<std::ptrdiff_t>(place) + 1, set.end(),
                set.begin() + static_cast<std::ptrdiff_t>(place));
      set.back() = kEmpty;
    }
  }
}

// Adds the members of one set that pass the filter to the working list,
// visiting from the last place to the first. Reports whether any failed.
bool gather_set(overlay_table* table, std::span<const int8_t, kPlaces> set, unsigned filter,
                HandleSet work) {
  bool any_failed = false;
  for (int place = kPlaces - 1; place >= 0; --place) {
    int8_t value = set[place];
    if (value < 0) {
      continue;
    }
    if (names_entry(value) && _overlay_entry_ok(&table->entries[value], filter) != 0) {
      _add_handle_to_array(table, value, work);
    } else {
      any_failed = true;
    }
  }
  return any_failed;
}

void gather_and_sort(overlay_table* table, std::span<int8_t, kPlaces> set, unsigned filter,
                     HandleSet work) {
  if (gather_set(table, set, filter, work)) {
    _sort_handle_array(table, set);
  }
}

}  // namespace

StreamName stream_name(int stream) {
  StreamName name{};
  std::snprintf(name.data(), name.size(), "/ovl_strm_%d", stream);
  return name;
}

MappedStream map_stream(const char* name) {
  zantrel::UniqueFd fd(shm_open(name, O_RDWR, kStreamMode));
  if (!fd) {
    return nullptr;
  }
  return MappedStream(map_stream_fd(fd.get()));
}

MappedStream map_stream(int stream) {
  if (!valid_stream(stream)) {
    errno = EINVAL;
    return nullptr;
  }
  return map_stream(stream_name(stream).data());
}

int _unmap_stream_table(overlay_stream_table* stream_table) {
  if (!mapped(stream_table)) {
    errno = EINVAL;
    return -1;
  }
  return munmap(stream_table, kStreamTableSize);
}

int _stream_unlink_error(const char* name) {
  if (errno == ENOENT) {
    return kNoStreamTable;
  }
  log_message(LOG_ERR, "libzantrel: could not remove overlay stream file (%s). %s\n", name,
              error_text(errno));
  return kSystemError;
}

int _remove_handle_from_streams(overlay_table* table, int index) {
  overlay_table_entry& entry = table->entries[index];
  GlobResult found;
  // GLOB_ERR: an unreadable /dev/shm is a failure, not "no stream tables".
  const int rc = glob(kTableGlob, GLOB_ERR, nullptr, &found.paths);
  if (rc == GLOB_NOMATCH) {
    entry.stream_count = 0;
    return kOk;
  }
  if (rc != 0) {
    log_message(LOG_ERR, "libzantrel: Could not search the stream overlay tables\n");
    return kSystemError;
  }
  bool reached_all = true;
  for (std::size_t i = 0; i < found.paths.gl_pathc && entry.stream_count != 0; ++i) {
    const char* path = found.paths.gl_pathv[i];
    if (std::strncmp(path, kStreamPathPrefix, std::strlen(kStreamPathPrefix)) != 0) {
      continue;  // the main table, or an "ovl_" object that is no stream table
    }
    MappedStream stream_table = map_stream(path + kShmDirLength);
    if (!stream_table) {
      if (errno != ENOENT) {  // a table removed meanwhile names nobody
        log_message(LOG_ERR, "libzantrel: Could not map the stream overlay table %s. %s\n",
                    path + kShmDirLength, error_text(errno));
        reached_all = false;
      }
      continue;
    }
    if (_remove_handle_from_array(table, index, stream_table->handles) == kOk) {
      raise_version(stream_table->version);
      --entry.stream_count;
    }
  }
  if (!reached_all) {
    return kSystemError;
  }
  entry.stream_count = 0;
  return kOk;
}

}  // namespace zantrel::table

using namespace zantrel;         // NOLINT(google-build-using-namespace)
using namespace zantrel::table;  // NOLINT(google-build-using-namespace)
using zantrel::log_message;

extern "C" {

overlay_stream_table* overlay_table_map_stream(int stream) {
  overlay_stream_table* stream_table = map_stream(stream).release();
  return stream_table != nullptr ? stream_table : static_cast<overlay_stream_table*>(MAP_FAILED);
}

int overlay_table_unmap_stream(overlay_stream_table* stream_table) {
  return _unmap_stream_table(stream_table);
}

int overlay_table_add_overlay_to_stream(overlay_table* table, int handle, int stream) {
  if (!mapped(table) || !valid_stream(stream)) {
    return kBadArgument;
  }
  int index = handle_index(handle);
  if (index < 0 || !in_use(table, index)) {
    return kBadHandle;
  }
  StreamName name = stream_name(stream);
  MappedStream stream_table = map_stream(name.data());
  if (!stream_table) {
    if (!create_stream_table(name.data())) {
      return kSystemError;
    }
    stream_table = map_stream(name.data());
    if (!stream_table) {
      log_message(LOG_ERR, "libzantrel: Could create but not map stream overlay table\n");
      return kSystemError;
    }
  }
  purge_stale_members(table, stream_table->handles);
  int rc = _add_handle_to_array(table, index, stream_table->handles);
  if (rc != kOk) {
    return rc;
  }
  if (stream_table->active == 0) {
    // A new stream set is a change the encoder must see through the main
    // table, since it has not been watching this stream's counter.
    raise_version(table->version);
    stream_table->active = 1;
  }
  raise_version(stream_table->version);
  ++table->entries[index].stream_count;
  return kOk;
}

int overlay_table_remove_overlay_from_stream(overlay_table* table, int handle, int stream) {
  if (!mapped(table) || !valid_stream(stream)) {
    return kBadArgument;
  }
  int index = handle_index(handle);
  if (index < 0) {
    return kBadHandle;
  }
  MappedStream stream_table = map_stream(stream_name(stream).data());
  if (!stream_table) {
    log_message(LOG_ERR, "libzantrel: Could not map the stream overlay table.\n");
    return kSystemError;
  }
  int rc = _remove_handle_from_array(table, index, stream_table->handles);
  if (rc == kOk) {
    raise_version(stream_table->version);
    uint32_t& count = table->entries[index].stream_count;
    count = count > 0 ? count - 1 : 0;
  }
  return rc;
}

int overlay_table_get_stream_table_version(int stream, unsigned* version) {
  if (version == nullptr || !valid_stream(stream)) {
    return kBadArgument;
  }
  MappedStream stream_table = map_stream(stream_name(stream).data());
  if (!stream_table) {
    return errno == ENOENT ? kNoStreamTable : kSystemError;
  }
  *version = read_version(stream_table->version);
  return kOk;
}

int overlay_table_remove_stream(int stream) {
  if (!valid_stream(stream)) {
    return kBadArgument;
  }
  StreamName name = stream_name(stream);
  if (shm_unlink(name.data()) == 0) {
    return kOk;
  }
  return _stream_unlink_error(name.data());
}

int overlay_table_get_entries(overlay_table* table, overlay_stream_table* stream_table,
                              overlay_table_entry* entries, int32_t* handles, unsigned channel,
                              int /*stream*/, unsigned filter) {
  if (!mapped(table) || entries == nullptr || handles == nullptr) {
    return kBadArgument;
  }
  for (int i = 0; i < kPlaces; ++i) {
    entries[i].in_use = 0;
    entries[i].data.kernel_id = 0;
    handles[i] = kBadHandle;
  }
  if (channel >= kChannels) {
    return kBadChannel;
  }
  std::array<int8_t, kWorkPlaces> work{};
  work.fill(kEmpty);

  // Sets are visited global, channel, stream, each from its last place; an
  // addition goes before members of equal priority, so at equal priority the
  // stream's members end up first and the global ones last.
  gather_and_sort(table, table->global_handles, filter, work);
  gather_and_sort(table, table->channel_handles[channel], filter, work);
  if (mapped(stream_table) && stream_table->active == 1) {
    gather_and_sort(table, stream_table->handles, filter, work);
  }

  for (int i = 0; i < kPlaces; ++i) {
    int8_t value = work[i];
    if (names_entry(value)) {
      handles[i] = value + 1;
      std::memcpy(&entries[i], &table->entries[value], sizeof entries[i]);
    }
  }
  return kOk;
}

int overlay_table_get_source_entries(overlay_table* table, overlay_table_entry** entries,
                                     unsigned count) {
  if (count == 0) {
    return kOk;
  }
  if (!mapped(table) || entries == nullptr) {
    return kBadArgument;
  }
  unsigned places = std::min<unsigned>(count, kPlaces);
  for (unsigned i = 0; i < places; ++i) {
    int8_t& place = table->source_handles[i];
    entries[i] = nullptr;
    if (names_entry(place) && in_use(table, place)) {
      entries[i] = &table->entries[place];
    } else if (place >= 0) {
      // A member whose entry became free leaves a hole.
      place = kEmpty;
    }
  }
  return kOk;
}

int overlay_table_is_source_entry(overlay_table* table, int handle) {
  int index = handle_index(handle);
  if (index < 0 || !mapped(table)) {
    return -1;
  }
  const auto* begin = std::begin(table->source_handles);
  const auto* end = std::end(table->source_handles);
  return std::find(begin, end, static_cast<int8_t>(index)) != end ? 0 : -1;
}

}  // extern "C"
