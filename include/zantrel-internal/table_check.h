// The library's own, not exported: zantrelctl check, the benchmarks and the
// fuzzers link the zantrel_table_check target.
//
// Soundness of the shared tables, and their repair after a process died
// holding the lock. Sound means: every entry is free (all zero) or in use
// with a type 1 to 5; every set names entries in use, each at most once,
// members packed at the front (the source set may hold holes); a stream table
// is 16 bytes or more, `active` 0 with an empty set or 1; an entry's
// `stream_count` is no lower than the number of stream sets holding it (it
// may be higher: a repeated addition counts, a removed stream table is not
// subtracted).
//
// The check allocates nothing. Besides the main table it opens and maps, one
// at a time, the stream tables found under /dev/shm; a repair may also give a
// stream table cut short by a dead creator its 16 bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "zantrel.h"

namespace zantrel::table {

enum class Fault : uint8_t {
  kBadEntry,          // neither free nor in use with a type 1 to 5: freed
  kBadSetValue,       // a set byte that names no entry: emptied
  kFreeMember,        // a member whose entry is free: taken out
  kDuplicateMember,   // a second place of the same member: taken out
  kMemberAfterGap,    // an empty place before a member: the set closed up
  kShortStreamTable,  // a stream table of fewer than 16 bytes: made a new empty one
  kBadActive,         // `active` neither 0 nor 1: set to 1
  kInactiveMembers,   // members in a stream table never made active: emptied
  kLowStreamCount,    // `stream_count` below the stream sets holding it: raised
};

// The names of a fault: `name` for programs (zantrelctl check --json),
// `mended` for the warning logged after a repair.
struct FaultNames {
  Fault fault;
  const char* name;
  const char* mended;
};
inline constexpr std::array kFaultNames{
    FaultNames{Fault::kBadEntry, "unsound_entry", "unsound entries freed"},
    FaultNames{Fault::kBadSetValue, "no_such_entry", "set places naming no entry emptied"},
    FaultNames{Fault::kFreeMember, "free_member", "members of free entries removed"},
    FaultNames{Fault::kDuplicateMember, "duplicate_member", "duplicate members removed"},
    FaultNames{Fault::kMemberAfterGap, "member_after_gap", "members moved up over empty places"},
    FaultNames{Fault::kShortStreamTable, "short_stream_table",
               "unfinished stream tables made empty"},
    FaultNames{Fault::kBadActive, "bad_active_flag", "stream tables marked active"},
    FaultNames{Fault::kInactiveMembers, "inactive_stream_member",
               "members of inactive stream tables removed"},
    FaultNames{Fault::kLowStreamCount, "low_stream_count", "stream counts raised"},
};
constexpr int kFaultKinds = static_cast<int>(kFaultNames.size());
// Every fault at the place of its value, so that the table is indexed by it.
static_assert([] {
  for (size_t i = 0; i < kFaultNames.size(); ++i) {
    if (static_cast<size_t>(kFaultNames[i].fault) != i) return false;
  }
  return static_cast<size_t>(Fault::kLowStreamCount) + 1 == kFaultNames.size();
}());
constexpr const FaultNames& names_of(Fault fault) {
  return kFaultNames[static_cast<size_t>(fault)];
}

enum class Place : uint8_t { kEntry, kSource, kGlobal, kChannel, kStream };

struct Finding {
  Fault fault;
  Place where;
  int number;        // the channel or the stream; -1 for entries and the other sets
  int handle;        // the entry concerned, 1 to 100; 0 when none
  int place;         // the place in the set; -1 when none
  int64_t value;     // the byte, `type`, `active`, `stream_count` or size found
  int64_t expected;  // for kLowStreamCount: the stream sets holding the entry
  int32_t in_use;    // for kBadEntry: the entry's `in_use` and `kernel_id`
  int32_t kernel_id;
};

using FindingSink = void (*)(const Finding& finding, void* context);

// Reports every finding to sink (which may be null) and returns their number.
// With repair, mends each one as it goes; `version` is left to the caller.
// The caller holds the table's lock.
int check_tables(overlay_table* table, bool repair, FindingSink sink, void* context);

// What overlay_table_lock does after taking the lock from a dead holder:
// mends the tables, raises `version` once so that every encoder gathers
// again, and logs one warning saying what was mended. Returns the number of
// findings.
int repair_after_owner_death(overlay_table* table);

// After a repair by check_tables: raises `version` so that every encoder
// gathers again. The caller holds the table's lock.
void mark_mended(overlay_table* table);

}  // namespace zantrel::table
