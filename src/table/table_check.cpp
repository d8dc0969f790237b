// The check and repair of the main table and the stream tables. A holder
// killed inside an operation leaves what that operation had done so far: an
// entry half filled or half zeroed, a set in the middle of its shift (the
// same member twice), members of an entry already zeroed, a stream table
// made but not yet sized or filled, a stream member not yet counted.
#include "zantrel-internal/table_check.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "table.h"

namespace zantrel::table {
namespace {

constexpr char kStreamPrefix[] = "ovl_strm_";

// "/ovl_strm_%d"; made here so that the check also builds into the tools,
// apart from the library.
StreamName object_name(int stream) {
  StreamName name{};
  std::snprintf(name.data(), name.size(), "/ovl_strm_%d", stream);
  return name;
}

class Checker {
 public:
  Checker(overlay_table* table, bool repair, FindingSink sink, void* context)
      : table_(table), repair_(repair), sink_(sink), context_(context) {}

  int run() {
    for (int index = 0; index < kEntries; ++index)
      check_entry(index);  // NOLINT(modernize-loop-convert): by index
    check_set(table_->source_handles, Place::kSource, -1, false);
    check_set(table_->global_handles, Place::kGlobal, -1, true);
    for (int c = 0; c < static_cast<int>(kChannels); ++c) {
      check_set(table_->channel_handles[c], Place::kChannel, c, true);
    }
    check_stream_tables();
    // NOLINTNEXTLINE(modernize-loop-convert): the index names the entry
    for (int index = 0; index < kEntries; ++index) {
      overlay_table_entry& entry = table_->entries[index];
      if (live(index) && entry.stream_count < stream_sets_[index]) {
        Finding f =
            finding(Fault::kLowStreamCount, Place::kEntry, -1, index + 1, -1, entry.stream_count);
        f.expected = stream_sets_[index];
        report(f);
        if (repair_) entry.stream_count = stream_sets_[index];
      }
    }
    return findings_;
  }

 private:
  static Finding finding(Fault fault, Place where, int number, int handle, int place,
                         int64_t value) {
    return Finding{fault, where, number, handle, place, value, 0, 0, 0};
  }

  void report(const Finding& f) {
    ++findings_;
    if (sink_ != nullptr) sink_(f, context_);
  }

  bool live(int index) const {
    const overlay_table_entry& entry = table_->entries[index];
    return entry.in_use == 1 && entry.data.type >= OVERLAY_TYPE_PLAIN &&
           entry.data.type <= OVERLAY_TYPE_SCALABLE_IMAGE;
  }

  void check_entry(int index) {
    overlay_table_entry& entry = table_->entries[index];
    if (live(index)) return;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&entry);
    if (std::all_of(bytes, bytes + sizeof entry, [](unsigned char b) { return b == 0; })) return;
    Finding f = finding(Fault::kBadEntry, Place::kEntry, -1, index + 1, -1, entry.data.type);
    f.in_use = static_cast<int32_t>(entry.in_use);
    f.kernel_id = entry.data.kernel_id;
    report(f);
    if (repair_) std::memset(&entry, 0, sizeof entry);
  }

  // Packed sets keep their good members in order at the front; the source
  // set keeps its places and gets a hole where a bad member was.
  void check_set(int8_t* set, Place where, int number, bool packed,
                 std::array<uint32_t, kEntries>* counts = nullptr) {
    std::array<int8_t, kPlaces> kept;
    kept.fill(kEmpty);
    int count = 0;
    bool seen_empty = false;
    bool changed = false;
    for (int place = 0; place < kPlaces; ++place) {
      const int8_t value = set[place];
      const int handle = names_entry(value) ? value + 1 : 0;
      if (value == kEmpty) {
        seen_empty = true;
        continue;
      }
      Fault fault;
      if (!names_entry(value)) {
        fault = Fault::kBadSetValue;
      } else if (!live(value)) {
        fault = Fault::kFreeMember;
      } else if (std::find(set, set + place, value) != set + place) {
        fault = Fault::kDuplicateMember;
      } else {
        if (packed && seen_empty) {
          report(finding(Fault::kMemberAfterGap, where, number, handle, place, value));
          changed = true;
        }
        kept[packed ? count : place] = value;
        ++count;
        if (counts != nullptr) ++(*counts)[value];
        continue;
      }
      report(finding(fault, where, number, handle, place, value));
      changed = true;
    }
    if (repair_ && changed) std::copy(kept.begin(), kept.end(), set);
  }

  void check_stream_tables() {
    const int dir = open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return;
    alignas(dirent64) char buffer[4096];
    for (;;) {
      const ssize_t got = getdents64(dir, buffer, sizeof buffer);
      if (got <= 0) break;
      for (ssize_t at = 0; at < got;) {
        const auto* item = reinterpret_cast<const dirent64*>(buffer + at);
        at += item->d_reclen;
        int stream = 0;
        if (stream_number(item->d_name, &stream)) check_stream_table(stream);
      }
    }
    close(dir);
  }

  // The number of a name "ovl_strm_%d"; false for any other name.
  static bool stream_number(const char* name, int* stream) {
    if (std::strncmp(name, kStreamPrefix, sizeof kStreamPrefix - 1) != 0) return false;
    const char* digits = name + sizeof kStreamPrefix - 1;
    char* end = nullptr;
    const long value = std::strtol(digits, &end, 10);
    if (end == digits || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
    *stream = static_cast<int>(value);
    // Only the name the library gives that number is its stream table.
    return std::strcmp(object_name(*stream).data() + 1, name) == 0;
  }

  void check_stream_table(int stream) {
    const StreamName name = object_name(stream);
    const int fd = shm_open(name.data(), O_RDWR, 0);
    if (fd < 0) return;
    struct stat st {};
    bool usable = fstat(fd, &st) == 0;
    bool fresh = false;
    if (usable && st.st_size < static_cast<off_t>(kStreamTableSize)) {
      // Made by a process that died before it sized and filled it.
      report(finding(Fault::kShortStreamTable, Place::kStream, stream, 0, -1, st.st_size));
      usable = repair_ && ftruncate(fd, kStreamTableSize) == 0;
      fresh = usable;
    }
    void* mapping = usable
                        ? mmap(nullptr, kStreamTableSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                        : MAP_FAILED;
    close(fd);
    if (mapping == MAP_FAILED) return;
    auto* stream_table = static_cast<overlay_stream_table*>(mapping);
    if (fresh) {
      stream_table->active = 0;
      stream_table->version = 0;
      std::fill(std::begin(stream_table->handles), std::end(stream_table->handles), kEmpty);
    }
    check_stream_set(stream_table, stream);
    munmap(mapping, kStreamTableSize);
  }

  void check_stream_set(overlay_stream_table* stream_table, int stream) {
    int8_t* set = stream_table->handles;
    if (stream_table->active > 1) {
      report(finding(Fault::kBadActive, Place::kStream, stream, 0, -1, stream_table->active));
      if (repair_) stream_table->active = 1;
    }
    if (stream_table->active == 0) {
      // Nothing was ever added: what the set holds is the zeros of a table
      // whose creator died before filling it.
      for (int place = 0; place < kPlaces; ++place) {
        if (set[place] != kEmpty) {
          report(finding(Fault::kInactiveMembers, Place::kStream, stream,
                         names_entry(set[place]) ? set[place] + 1 : 0, place, set[place]));
          if (repair_) set[place] = kEmpty;
        }
      }
      return;
    }
    check_set(set, Place::kStream, stream, true, &stream_sets_);
  }

  overlay_table* table_;
  bool repair_;
  FindingSink sink_;
  void* context_;
  int findings_ = 0;
  std::array<uint32_t, kEntries> stream_sets_{};  // stream sets holding each entry
};

// Counts by fault, for the one log line of a recovery.
void count_finding(const Finding& finding, void* context) {
  ++static_cast<int*>(context)[static_cast<int>(finding.fault)];
}

}  // namespace

int check_tables(overlay_table* table, bool repair, FindingSink sink, void* context) {
  return Checker(table, repair, sink, context).run();
}

void mark_mended(overlay_table* table) { raise_version(table->version); }

int repair_after_owner_death(overlay_table* table) {
  std::array<int, kFaultKinds> counts{};
  const int findings = check_tables(table, true, count_finding, counts.data());
  raise_version(table->version);
  if (findings == 0) {
    log_message(LOG_WARNING,
                "libzantrel: Table owner died while mutex locked; tables checked, nothing "
                "needed mending.\n");
    return 0;
  }
  char text[512];
  std::size_t used = 0;
  for (int kind = 0; kind < kFaultKinds; ++kind) {
    if (counts[kind] == 0 || used >= sizeof text) continue;
    const int n = std::snprintf(text + used, sizeof text - used, "%s%d %s", used ? ", " : "",
                                counts[kind], kFaultNames[kind].mended);
    used += n > 0 ? static_cast<std::size_t>(n) : 0;
  }
  log_message(LOG_WARNING, "libzantrel: Table owner died while mutex locked; tables mended: %s.\n",
              text);
  return findings;
}

}  // namespace zantrel::table
