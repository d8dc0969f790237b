// Fuzzes the shared tables as any local process could have written them: a
// main table image and the stream table of stream 0 from the input, then
// the table and gathering operations on them, the check and the repair.
// Whatever the bytes, no operation reads or writes outside the tables (the
// main table is a heap copy, so the address sanitizer sees an overrun); the
// repair reports what the check reports and leaves tables the check finds
// sound; a second repair changes nothing; and once sound, the tables stay
// sound through any sequence of operations.
//
// Input: the main table's first 148 bytes (version and sets); 16 bytes of
// stream table 0 and a byte choosing its file size (none, 0, 8 or 16
// bytes); a count of entries and 6 bytes for each (index, in_use, type,
// priority, legacy and filter flags with the kernel id, stream_count); then
// operations of 3 bytes, the first half on the tables as given, the second
// half after the repair.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "table.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel-internal/table_check.h"
#include "zantrel.h"

namespace {

namespace table = zantrel::table;

constexpr std::size_t kHeader = 148;
constexpr std::size_t kStreamBytes = 16;
constexpr std::size_t kEntryBytes = 6;
constexpr std::size_t kOpBytes = 3;
constexpr int kStreams = 3;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "shared_table_fuzz: %s\n", what);
  std::abort();
}

void write_stream_table(const uint8_t* bytes, uint8_t choice) {
  static constexpr ssize_t kSizes[] = {-1, 0, 8, 16};
  const ssize_t length = kSizes[choice % 4];
  if (length < 0) return;
  int fd = shm_open("/ovl_strm_0", O_RDWR | O_CREAT | O_TRUNC, 0666);
  if (fd < 0 || write(fd, bytes, length) != length) fail("cannot write the stream table");
  close(fd);
}

void fill_entry(overlay_table* t, const uint8_t* b) {
  overlay_table_entry& entry = t->entries[b[0] % table::kEntries];
  const uint32_t in_use[] = {0, 1, 1, b[1]};
  entry.in_use = in_use[b[1] % 4];
  entry.data.type = static_cast<int8_t>(b[2]);
  entry.data.description.ovl.priority = static_cast<int8_t>(b[3]);
  entry.data.description.ovl.legacy = b[4] & 1;
  entry.data.description.ovl.ignore_stream_filter = b[4] >> 1 & 1;
  entry.data.kernel_id = b[4] >> 2;
  entry.stream_count = b[5];
}

void run_operation(overlay_table* t, const uint8_t* op) {
  const int handle = op[1] % 103 - 1;
  const int stream = op[2] % kStreams;
  const unsigned channel = op[2] % 18;
  overlay_entry_data data{};
  data.type = op[1] % 5 + 1;
  data.kernel_id = op[2] % 4;
  data.description.ovl.priority = static_cast<int8_t>(op[2]) / 16;
  data.description.ovl.legacy = op[2] & 1;
  switch (op[0] % 15) {
    case 0:
      overlay_table_create_overlay(t, &data);
      break;
    case 1:
      overlay_table_destroy_overlay(t, handle);
      break;
    case 2: {
      // Callers update overlays that exist.
      const overlay_table_entry* entry = overlay_table_get_entry(t, handle);
      int replaced = 0;
      if (entry != nullptr && entry->in_use != 0) {
        overlay_table_update_overlay(t, handle, &data, &replaced);
      }
      break;
    }
    case 3:
      overlay_table_add_overlay_globally(t, handle);
      break;
    case 4:
      overlay_table_remove_overlay_globally(t, handle);
      break;
    case 5:
      overlay_table_add_overlay_to_source(t, handle);
      break;
    case 6:
      overlay_table_remove_overlay_from_source(t, handle);
      break;
    case 7:
      overlay_table_add_overlay_to_channel(t, handle, channel);
      break;
    case 8:
      overlay_table_remove_overlay_from_channel(t, handle, channel);
      break;
    case 9:
      overlay_table_add_overlay_to_stream(t, handle, stream);
      break;
    case 10:
      overlay_table_remove_overlay_from_stream(t, handle, stream);
      break;
    case 11: {
      overlay_stream_table* mapped = overlay_table_map_stream(stream);
      overlay_table_entry entries[OVERLAY_SET_PLACES];
      int32_t handles[OVERLAY_SET_PLACES];
      overlay_table_get_entries(t, mapped == MAP_FAILED ? nullptr : mapped, entries, handles,
                                op[1] % table::kChannels, stream, op[2] % 8);
      for (int32_t h : handles) {
        if (h != -6 && (h < 1 || h > table::kEntries)) fail("gathered a handle out of range");
      }
      if (mapped != MAP_FAILED) overlay_table_unmap_stream(mapped);
      break;
    }
    case 12: {
      overlay_table_entry* pointers[OVERLAY_SET_PLACES + 2];
      overlay_table_get_source_entries(t, pointers, op[1] % (OVERLAY_SET_PLACES + 2));
      break;
    }
    case 13:
      overlay_table_find_handle_by_kernel_id(t, op[2] % 4);
      overlay_table_is_source_entry(t, handle);
      break;
    default:
      // What overlay_clear_stream does, without the lock.
      overlay_table_remove_stream(stream);
      break;
  }
}

int check(overlay_table* t, bool repair) {
  return table::check_tables(t, repair, nullptr, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  if (!zantrel::private_dev_shm("size=64m"))
    fail("no private /dev/shm: refusing to touch the machine's tables");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeader + kStreamBytes + 2) return 0;
  for (int s = 0; s < kStreams; ++s) shm_unlink(table::stream_name(s).data());
  auto heap = std::make_unique<overlay_table>();
  overlay_table* t = heap.get();
  std::memcpy(t, data, kHeader);
  const uint8_t* at = data + kHeader;
  write_stream_table(at, at[kStreamBytes]);
  at += kStreamBytes + 1;
  const uint8_t* end = data + size;
  for (unsigned n = *at++; n > 0 && end - at >= static_cast<ptrdiff_t>(kEntryBytes); --n) {
    fill_entry(t, at);
    at += kEntryBytes;
  }
  const std::size_t ops = static_cast<std::size_t>(end - at) / kOpBytes;
  for (std::size_t i = 0; i < ops / 2; ++i) run_operation(t, at + i * kOpBytes);

  const int found = check(t, false);
  if (check(t, true) != found) fail("the repair mended other things than the check found");
  if (check(t, false) != 0) fail("the tables are not sound after the repair");
  auto before = std::make_unique<overlay_table>(*t);
  if (check(t, true) != 0 || std::memcmp(before.get(), t, sizeof *t) != 0) {
    fail("a repair of sound tables changed them");
  }
  for (std::size_t i = ops / 2; i < ops; ++i) {
    run_operation(t, at + i * kOpBytes);
    if (check(t, false) != 0) fail("an operation made sound tables unsound");
  }
  return 0;
}
