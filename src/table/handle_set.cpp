// Handle sets: small arrays of handle indexes kept in order of falling
// priority, -1 for an empty place. The bytes live in shared memory that any
// process may write, so every index is range-checked before it names an entry.
#include <algorithm>
#include <climits>

#include "table.h"

namespace zantrel::table {

int _add_handle_to_array(overlay_table* table, int index, HandleSet set) {
  if (index < 0 || index >= kEntries) {
    return kBadArgument;
  }
  if (set.empty() || set.back() >= 0) {
    return kSetFull;
  }
  if (std::find(set.begin(), set.end(), static_cast<int8_t>(index)) != set.end()) {
    return kOk;
  }
  // Walk with the value to place in hand: it goes before the first member
  // whose priority is not above its own, and each displaced member moves on.
  // The first empty place, or a member whose entry became free, takes the
  // last one carried.
  auto carried = static_cast<int8_t>(index);
  for (int8_t& place : set) {
    if (!names_entry(place) || !in_use(table, place)) {
      place = carried;
      break;
    }
    if (priority(table, carried) >= priority(table, place)) {
      std::swap(carried, place);
    }
  }
  return kOk;
}

int _remove_handle_from_array(overlay_table* /*table*/, int index, HandleSet set) {
  if (index < 0 || index >= kEntries) {
    return kBadHandle;
  }
  auto found = std::find(set.begin(), set.end(), static_cast<int8_t>(index));
  if (found == set.end()) {
    return kBadHandle;
  }
  std::copy(found + 1, set.end(), found);
  set.back() = kEmpty;
  return kOk;
}

void _sort_handle_array(overlay_table* table, std::span<int8_t, kPlaces> set) {
  auto key = [table](int8_t value) {
    return names_entry(value) ? priority(table, value) : INT32_MIN;
  };
  // Insertion sort from place 1. Empty places keep their position, and a run
  // of equal priorities comes out reversed: a member moves back past every
  // member whose key is not above its own.
  for (int i = 1; i < kPlaces; ++i) {
    int8_t value = names_entry(set[i]) ? set[i] : kEmpty;
    int32_t value_key = key(value);
    int j = i;
    while (j > 0 && names_entry(set[j - 1]) && key(set[j - 1]) <= value_key) {
      set[j] = set[j - 1];
      --j;
    }
    set[j] = value;
  }
}

int _overlay_entry_ok(const overlay_table_entry* entry, unsigned filter) {
  if (entry->in_use == 0) {
    return 0;
  }
  const overlay& ovl = entry->data.description.ovl;
  if (ovl.ignore_stream_filter == 1) {
    return 1;
  }
  if (entry->data.type == OVERLAY_TYPE_PLAIN) {
    return (filter & OVERLAY_FILTER_PLAIN) != 0 ? 1 : 0;
  }
  if (ovl.legacy == 1) {
    return (filter & OVERLAY_FILTER_LEGACY) != 0 ? 1 : 0;
  }
  return (filter & OVERLAY_FILTER_NON_LEGACY) != 0 ? 1 : 0;
}

}  // namespace zantrel::table
