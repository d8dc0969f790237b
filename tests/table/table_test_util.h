// Helpers of the table tests: a fresh table mapped and locked for each test,
// overlays and set contents as handles.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
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
