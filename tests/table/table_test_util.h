// Helpers of the table tests: a fresh table mapped and locked for each test,
// overlays, set contents as handles, and one random operation.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "table.h"
#include "test_support.h"
#include "zantrel.h"

namespace zantrel::test {

inline overlay_entry_data entry_data(int32_t priority, int32_t type = OVERLAY_TYPE_TEXT,
                                     uint32_t legacy = 0, uint32_t ignore_filter = 0) {
  overlay_entry_data data{};
  data.type = type;
  data.description.ovl.priority = priority;
  data.description.ovl.ignore_stream_filter = ignore_filter;
  data.description.ovl.legacy = legacy;
  return data;
}

// A set as handles (index + 1), -1 for empty places.
inline std::vector<int> handles_of(const int8_t* set) {
  std::vector<int> out;
  for (int i = 0; i < OVERLAY_SET_PLACES; ++i) out.push_back(set[i] >= 0 ? set[i] + 1 : set[i]);
  return out;
}

// The given handles, then `empty` up to the size of a set.
inline std::vector<int> set_of(std::vector<int> handles, int empty = -1) {
  handles.resize(OVERLAY_SET_PLACES, empty);
  return handles;
}

// A stream's set; all empty when the stream has no table.
inline std::vector<int> read_stream(int stream) {
  overlay_stream_table* mapped = overlay_table_map_stream(stream);
  if (mapped == MAP_FAILED) return set_of({});
  std::vector<int> out = handles_of(mapped->handles);
  overlay_table_unmap_stream(mapped);
  return out;
}

// One random operation with handles -1 to `handles`, channels 0 to 17 and
// streams 0 to 2, whose result must be one the operation is known to give.
// Priorities never change, so sets stay ordered.
inline void random_operation(overlay_table* t, std::mt19937& rng, int handles) {
  auto pick = [&rng](std::size_t n) { return static_cast<int>(rng() % n); };
  int h = pick(handles + 2) - 1, s = pick(3);
  unsigned channel = pick(18);
  overlay_entry_data data = entry_data(pick(6) - 1, pick(7));
  overlay_stream_table* stream = overlay_table_map_stream(s);
  stream = stream == MAP_FAILED ? nullptr : stream;
  overlay_table_entry entries[OVERLAY_SET_PLACES], *sources[OVERLAY_SET_PLACES];
  int32_t out[OVERLAY_SET_PLACES];
  const std::function<int()> ops[] = {
      [&] { return overlay_table_get_entries(t, stream, entries, out, channel, 0, pick(8)); },
      [&] { return std::min(overlay_table_create_overlay(t, &data), 0); },
      [&] { return overlay_table_destroy_overlay(t, h); },
      [&] { return std::min(overlay_table_find_handle_by_kernel_id(t, pick(3)), 0); },
      [&] { return overlay_table_add_overlay_globally(t, h); },
      [&] { return overlay_table_remove_overlay_globally(t, h); },
      [&] { return overlay_table_add_overlay_to_source(t, h); },
      [&] { return overlay_table_get_source_entries(t, sources, pick(9)); },
      [&] { return overlay_table_add_overlay_to_channel(t, h, channel); },
      [&] { return overlay_table_remove_overlay_from_channel(t, h, channel); },
      [&] { return overlay_table_add_overlay_to_stream(t, h, s); },
      [&] { return overlay_table_remove_overlay_from_stream(t, h, s); },
  };
  int op = pick(std::size(ops)), rc = ops[op]();
  EXPECT_TRUE(rc == 0 || rc == -1 || rc == -2 || rc == -4 || rc == -6 || rc == -9 || rc == -10)
      << "operation " << op << " returned " << rc;
  if (stream != nullptr) overlay_table_unmap_stream(stream);
}

class TableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(overlay_table_init(), 0);
    ASSERT_NE(table_ = overlay_table_map(), MAP_FAILED);
    ASSERT_EQ(overlay_table_lock(table_), 0);
    clear_captured_logs();
  }
  void TearDown() override {
    overlay_table_unlock(table_);
    overlay_table_unmap(table_);
  }

  int make(int32_t priority, int32_t type = OVERLAY_TYPE_TEXT, uint32_t legacy = 0,
           uint32_t ignore_filter = 0) {
    overlay_entry_data data = entry_data(priority, type, legacy, ignore_filter);
    return overlay_table_create_overlay(table_, &data);
  }

  // Handles gathered for a channel, -6 in empty places.
  std::vector<int> gather(overlay_stream_table* stream, unsigned filter = 7, unsigned channel = 2) {
    int32_t handles[OVERLAY_SET_PLACES];
    EXPECT_EQ(overlay_table_get_entries(table_, stream, entries_, handles, channel, 0, filter), 0);
    return {handles, handles + OVERLAY_SET_PLACES};
  }

  overlay_table* table_ = static_cast<overlay_table*>(MAP_FAILED);
  overlay_table_entry entries_[OVERLAY_SET_PLACES];
};

}  // namespace zantrel::test
