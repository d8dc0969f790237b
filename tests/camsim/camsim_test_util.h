// Helpers shared by the simulator's tests: a node descriptor, raw commands
// that give back -errno, and overlay records.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "cam_ioctl.h"
#include "camsim.h"

namespace camsim_test {

class Node {
 public:
  explicit Node(const char* path = "/dev/cam0") : fd_(open(path, O_RDWR | O_CLOEXEC)) {}
  ~Node() {
    if (fd_ >= 0) close(fd_);
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// The command's result, or -errno.
inline int command(int fd, unsigned long request, void* arg) {
  const int rc = ioctl(fd, request, arg);
  return rc < 0 ? -errno : rc;
}

inline internal_overlay record(std::int32_t type, std::uint32_t w, std::uint32_t h,
                               std::uint32_t buffers = 1) {
  internal_overlay r{};
  r.type = type;
  r.width = w;
  r.height = h;
  r.nbr_buffers = buffers;
  r.visible_width = w;
  r.visible_height = h;
  r.palette_bank = 1;
  return r;
}

// Creates an overlay and returns its id (0 on failure, with a test failure).
inline std::uint32_t create(int fd, internal_overlay r) {
  const int rc = command(fd, CAM_IOC_CREATE_OVERLAY, &r);
  EXPECT_EQ(rc, 0) << "create overlay";
  return rc == 0 ? r.id : 0;
}

inline int destroy(int fd, std::uint32_t id) {
  return command(fd, CAM_IOC_DESTROY_OVERLAY, reinterpret_cast<void*>(std::uintptr_t{id}));
}

inline int get_buffer(int fd, std::uint32_t id) {
  cam_buffer_query q{};
  q.id = id;
  return command(fd, CAM_IOC_GET_BUFFER, &q);
}

inline int submit(int fd, std::uint32_t id, std::uint32_t offset, std::uint32_t param = 0) {
  cam_buffer_submit s{id, param, offset};
  return command(fd, CAM_IOC_SUBMIT_BUFFER, &s);
}

// Gets a buffer, fills it through mmap with `fill(bytes, size)`, submits it;
// the buffer's offset, or -errno.
template <typename Fill>
int fill_and_submit(int fd, std::uint32_t id, std::uint32_t size, Fill fill) {
  const int offset = get_buffer(fd, id);
  if (offset < 0) return offset;
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
  if (map == MAP_FAILED) return -errno;
  fill(static_cast<unsigned char*>(map), size);
  munmap(map, size);
  const int rc = submit(fd, id, static_cast<std::uint32_t>(offset));
  return rc < 0 ? rc : offset;
}

class CamsimTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(camsim_reset(), 0); }
};

}  // namespace camsim_test
