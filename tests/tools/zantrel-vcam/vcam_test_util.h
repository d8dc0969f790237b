// Running zantrel-vcam and the other tools from a test, and reading back
// their pictures.
#pragma once

#include <cairo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace vcam_test {

// A scratch directory in the test process's private /dev/shm, which goes
// with the process.
inline std::string temp_dir() {
  std::string path = "/dev/shm/vcam-test.XXXXXX";
  EXPECT_NE(mkdtemp(path.data()), nullptr);
  return path;
}

// A program (zantrel-vcam unless told) started with args; stdout goes to a
// file, stderr to a pipe that the test reads.
class VcamProcess {
 public:
  VcamProcess(std::vector<std::string> args, const std::string& stdout_path,
              const char* program = ZANTREL_VCAM) {
    int err[2];
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    args.insert(args.begin(), program);
    pid_ = zantrel::test::spawn_child([&] {
      dup2(open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      std::vector<char*> argv;
      for (auto& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      return 127;
    });
    close(err[1]);
    err_ = fdopen(err[0], "r");
  }
  VcamProcess(const VcamProcess&) = delete;
  VcamProcess& operator=(const VcamProcess&) = delete;
  ~VcamProcess() {
    if (pid_ > 0 && status_ < 0 && kill(pid_, SIGKILL) == 0) wait();
    std::fclose(err_);
  }

  pid_t pid() const { return pid_; }

  // Reads stderr until a line contains text; false at end of file.
  bool wait_for_line(const std::string& text) {
    for (char line[4096]; std::fgets(line, sizeof line, err_) != nullptr;) {
      stderr_ += line;
      if (std::strstr(line, text.c_str()) != nullptr) return true;
    }
    return false;
  }

  // The exit status (128 + signal when killed); reads the rest of stderr.
  int wait() {
    wait_for_line("\x01never");
    return status_ = zantrel::test::wait_child(pid_);
  }

  const std::string& stderr_text() const { return stderr_; }

 private:
  pid_t pid_ = -1;
  std::FILE* err_ = nullptr;
  int status_ = -1;
  std::string stderr_;
};

inline std::string read_text(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// A PNG read back as 0xAARRGGBB pixels.
class Picture {
 public:
  explicit Picture(const std::string& path)
      : surface_(cairo_image_surface_create_from_png(path.c_str()), cairo_surface_destroy) {}
  bool ok() const { return cairo_surface_status(surface_.get()) == CAIRO_STATUS_SUCCESS; }
  int width() const { return cairo_image_surface_get_width(surface_.get()); }
  int height() const { return cairo_image_surface_get_height(surface_.get()); }
  uint32_t at(int x, int y) const {
    const auto* data = cairo_image_surface_get_data(surface_.get());
    uint32_t pixel = 0;
    std::memcpy(&pixel, data + y * cairo_image_surface_get_stride(surface_.get()) + 4 * x, 4);
    return cairo_image_surface_get_format(surface_.get()) == CAIRO_FORMAT_RGB24 ? pixel | 0xFF000000
                                                                                : pixel;
  }
  // The simulator's test picture at (x, y): nothing drawn there.
  bool background_at(int x, int y) const {
    return at(x, y) == (((x / 16 + y / 16) % 2 == 0) ? 0xFF404040u : 0xFF606060u);
  }
  // Pixels of the rectangle that are not the test picture.
  int drawn_in(int x0, int y0, int w, int h) const {
    int drawn = 0;
    for (int y = y0; y < y0 + h && y < height(); ++y)
      for (int x = x0; x < x0 + w && x < width(); ++x) drawn += background_at(x, y) ? 0 : 1;
    return drawn;
  }
  bool same_in(const Picture& other, int x0, int y0, int w, int h) const {
    for (int y = y0; y < y0 + h; ++y)
      for (int x = x0; x < x0 + w; ++x)
        if (at(x, y) != other.at(x, y)) return false;
    return true;
  }

 private:
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface_;
};

// Channel by channel within tolerance; alpha included.
inline bool near_color(uint32_t a, uint32_t b, int tolerance) {
  for (int shift = 0; shift < 32; shift += 8)
    if (std::abs(static_cast<int>((a >> shift) & 0xFF) - static_cast<int>((b >> shift) & 0xFF)) >
        tolerance)
      return false;
  return true;
}

// Where the driver puts a normalized coordinate on a side of size pixels.
inline int normalized_pixel(float fraction, uint32_t size) {
  const auto driver = static_cast<uint32_t>(fraction * 16384.0f);
  return static_cast<int>(static_cast<uint64_t>(driver) * size / 16384);
}

}  // namespace vcam_test
