// Helpers of the device and ovlconv tests: a reset driver with the device
// open, scratch files, PNGs through cairo and ".ovl" files made by ovlconv.
#pragma once

#include <cairo.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "camsim.h"
#include "device.h"
#include "test_support.h"

namespace device_test {

using zantrel::test::clear_captured_logs;

// A reset driver, the device open, no messages yet.
class PaletteTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GE(fd_ = o_open_fd(), 0);
    clear_captured_logs();
  }
  void TearDown() override { o_close_fd(fd_); }
  int fd_ = -1;
};

using Bytes = std::vector<uint8_t>;
using Pixels = std::vector<uint32_t>;                   // ARGB words, not premultiplied
using Patch = std::vector<std::pair<size_t, uint8_t>>;  // (offset, byte)

// Scratch files live in the test process's private /dev/shm, made on first
// use (after the test support mounted it); not "ovl_*", which the library's
// initialisation removes.
inline const std::string& dir() {
  static const std::string path = [] {
    char name[] = "/dev/shm/image-test.XXXXXX";
    return std::string(mkdtemp(name));
  }();
  return path;
}
inline std::string ovl_path() { return dir() + "/image.ovl"; }

inline Bytes read_file(const std::string& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}
inline void write_file(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary) << std::string(bytes.begin(), bytes.end());
}
// `file` with the patch's bytes set, grown to hold them.
inline Bytes patched(Bytes file, const Patch& patch) {
  for (auto [at, value] : patch) {
    file.resize(std::max(file.size(), at + 1));
    file[at] = value;
  }
  return file;
}

inline uint32_t& pixel(cairo_surface_t* s, int i) {
  int w = cairo_image_surface_get_width(s);
  unsigned char* row = cairo_image_surface_get_data(s) + i / w * cairo_image_surface_get_stride(s);
  return reinterpret_cast<uint32_t*>(row)[i % w];
}
inline void write_png(const std::string& path, int w, int h, const Pixels& argb) {
  cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
  for (int i = 0; i < w * h; ++i) {
    uint32_t p = argb[i], a = p >> 24, out = a << 24;
    for (int shift : {16, 8, 0}) out |= (((p >> shift) & 0xFF) * a + 127) / 255 << shift;
    pixel(s, i) = out;
  }
  cairo_surface_mark_dirty(s);
  ASSERT_EQ(cairo_surface_write_to_png(s, path.c_str()), CAIRO_STATUS_SUCCESS);
  cairo_surface_destroy(s);
}
// Premultiplied, which is the plain colour for alpha 0 and 255.
inline Pixels read_png(const std::string& path) {
  cairo_surface_t* s = cairo_image_surface_create_from_png(path.c_str());
  Pixels out(cairo_image_surface_get_width(s) * cairo_image_surface_get_height(s));
  for (size_t i = 0; i < out.size(); ++i) out[i] = pixel(s, int(i));
  cairo_surface_destroy(s);
  return out;
}

// Exit status of ovlconv; its stderr goes to *err.
inline int ovlconv(const std::vector<std::string>& args, std::string* err = nullptr) {
  std::string command = OVLCONV;
  for (const auto& arg : args) command += " '" + arg + "'";
  int status = std::system((command + " 2>" + dir() + "/ovlconv.err").c_str());
  const Bytes text = read_file(dir() + "/ovlconv.err");
  if (err != nullptr) err->assign(text.begin(), text.end());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
// A w x h image through ovlconv: version '4', or '2' with key 16.
inline Bytes make_ovl(int w, int h, const Pixels& argb, bool packed = false) {
  write_png(dir() + "/source.png", w, h, argb);
  std::vector<std::string> args = {"to-ovl", dir() + "/source.png", ovl_path()};
  if (packed) args.insert(args.begin() + 1, "--packed");
  EXPECT_EQ(ovlconv(args), 0);
  return read_file(ovl_path());
}
// Colours, one fully transparent, and a grey whose luma is the key 16.
inline Pixels pattern(int w, int h) {
  const uint32_t colours[] = {0xFFFF0000, 0xFF00FF00, 0x00000000, 0xFF0000FF,
                              0xFFFFFFFF, 0xFF101010, 0xFF808000};
  Pixels p;
  for (int i = 0; i < w * h; ++i) p.push_back(colours[(i * 3 + i / w) % 7]);
  return p;
}

}  // namespace device_test
