// Helpers of the API tests: the library on a reset simulated driver, the main
// table's entries, and a plain overlay description.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "camsim.h"
#include "test_support.h"
#include "zantrel.h"

namespace api_test {

using zantrel::test::table_files;

// The library initialised on a reset driver for each test.
class Library : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GT(overlay_init(0), 0);
  }
  void TearDown() override { overlay_deinit(); }
};

// The main table, mapped for one expression.
struct Table {
  overlay_table* t = overlay_table_map();
  ~Table() { overlay_table_unmap(t); }
  Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
};
inline overlay_entry_data entry(int handle) {
  return overlay_table_get_entry(Table().t, handle)->data;
}
inline uint32_t kernel_id(int handle) { return static_cast<uint32_t>(entry(handle).kernel_id); }
inline uint32_t main_version() { return Table().t->version; }

inline overlay plain(uint32_t width, uint32_t height, int32_t priority = 0,
                     overlay_format format = OVERLAY_FORMAT_ARGB32) {
  overlay ovl{};
  ovl.priority = priority;
  ovl.width = width;
  ovl.height = height;
  ovl.nbr_buffers = 1;
  ovl.format = format;
  ovl.position = {0, 0, 1, 1, 0};
  return ovl;
}

// A 24-bit bottom-up bitmap of one grey.
inline void write_bmp(const std::string& path, int width, int height, char grey) {
  const uint32_t row = (width * 3 + 3) & ~3, size = 54 + row * height;
  const uint32_t fields[] = {size, 0, 54, 40, uint32_t(width), uint32_t(height), 1 | (24 << 16)};
  std::vector<char> file(size, grey);
  file[0] = 'B', file[1] = 'M';
  std::memcpy(&file[2], fields, sizeof fields);  // up to the bits per pixel
  std::fill_n(&file[30], 24, 0);                 // no compression, no palette
  std::ofstream(path, std::ios::binary).write(file.data(), size);
}

// An ".ovl" image of ARGB pixels, every byte of them `value`.
inline void write_ovl(const std::string& path, int width, int height, char value) {
  std::vector<char> file{
      'o', 'g', '4', 0, 0, 16, char(width), char(width >> 8), char(height), char(height >> 8)};
  file.resize(78, 0);
  file.resize(78 + 4 * width * height, value);
  std::ofstream(path, std::ios::binary).write(file.data(), std::streamsize(file.size()));
}

}  // namespace api_test
