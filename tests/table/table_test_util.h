// Helpers shared by the table tests: a fresh table mapped and locked for each
// test, overlays of a given priority and kind, and readable set contents.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <initializer_list>
#include <vector>

#include "table.h"
#include "test_support.h"
#include "zantrel.h"

namespace zantrel::test {

struct OverlaySpec {
  int32_t priority = 0;
  int32_t type = OVERLAY_TYPE_TEXT;
  uint32_t legacy = 0;
  uint32_t ignore_filter = 0;
  int32_t kernel_id = 0;
};

inline overlay_entry_data entry_data(const OverlaySpec& spec) {
  overlay_entry_data data{};
  data.kernel_id = spec.kernel_id;
  data.type = spec.type;
  data.width = 64;
  data.height = 32;
  data.description.ovl.priority = spec.priority;
  data.description.ovl.legacy = spec.legacy;
  data.description.ovl.ignore_stream_filter = spec.ignore_filter;
  return data;
}

// A set as handles (index + 1), -1 for empty places, for readable failures.
inline std::vector<int> handles_of(const int8_t* set, int places = OVERLAY_SET_PLACES) {
  std::vector<int> out;
  for (int i = 0; i < places; ++i) {
    out.push_back(set[i] >= 0 ? set[i] + 1 : set[i]);
  }
  return out;
}

// Expected set: the given handles, then -1 up to the set's size.
inline std::vector<int> set_of(std::initializer_list<int> handles,
                               int places = OVERLAY_SET_PLACES) {
  std::vector<int> out(handles);
  out.resize(places, -1);
  return out;
}

// The set of a stream table as handles; empty when the stream has no table.
inline std::vector<int> read_stream(int stream) {
  overlay_stream_table* stream_table = overlay_table_map_stream(stream);
  if (stream_table == MAP_FAILED) {
    return set_of({});
  }
  std::vector<int> out = handles_of(stream_table->handles);
  overlay_table_unmap_stream(stream_table);
  return out;
}

inline bool shm_file_exists(const char* name) {
  std::string path = std::string("/dev/shm") + name;
  return access(path.c_str(), F_OK) == 0;
}

// A fresh "/ovl_table", mapped and locked by this process.
class TableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(overlay_table_init(), 0);
    table_ = overlay_table_map();
    ASSERT_NE(table_, MAP_FAILED);
    ASSERT_EQ(overlay_table_lock(table_), 0);
    locked_ = true;
    clear_captured_logs();
  }
  void TearDown() override {
    if (table_ != MAP_FAILED && table_ != nullptr) {
      if (locked_) {
        overlay_table_unlock(table_);
      }
      overlay_table_unmap(table_);
    }
  }

  int make(const OverlaySpec& spec) {
    overlay_entry_data data = entry_data(spec);
    return overlay_table_create_overlay(table_, &data);
  }
  int make(int32_t priority) { return make(OverlaySpec{.priority = priority}); }

  overlay_table_entry& entry(int handle) { return table_->entries[handle - 1]; }

  overlay_table* table_ = static_cast<overlay_table*>(MAP_FAILED);
  bool locked_ = false;
};

}  // namespace zantrel::test
