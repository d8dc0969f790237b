// Helpers for the simulator's tests: commands give back -errno.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "camsim.h"

namespace camsim_test {

using u32 = std::uint32_t;

struct Node {
  Node() : fd(open("/dev/cam0", O_RDWR | O_CLOEXEC)) {}
  ~Node() { close(fd); }
  const int fd;
};

inline int command(int fd, unsigned long request, void* arg) {
  const int rc = ioctl(fd, request, arg);
  return rc < 0 ? -errno : rc;
}

inline internal_overlay record(int type, u32 w, u32 h, u32 buffers = 1, u32 x = 0, u32 y = 0) {
  internal_overlay r{};
  r.type = type, r.width = r.visible_width = w, r.height = r.visible_height = h;
  r.nbr_buffers = buffers, r.palette_bank = 1, r.x = x, r.y = y;
  return r;
}

inline u32 create(int fd, internal_overlay r) {
  EXPECT_EQ(command(fd, CAM_IOC_CREATE_OVERLAY, &r), 0) << "create";
  return r.id;
}

inline int destroy(int fd, u32 id) {
  return command(fd, CAM_IOC_DESTROY_OVERLAY, reinterpret_cast<void*>(std::uintptr_t{id}));
}

inline int get_buffer(int fd, u32 id) {
  cam_buffer_query q{id, {}};
  return command(fd, CAM_IOC_GET_BUFFER, &q);
}

inline int submit(int fd, u32 id, int offset, u32 param = 0) {
  cam_buffer_submit s{id, param, static_cast<u32>(offset)};
  return command(fd, CAM_IOC_SUBMIT_BUFFER, &s);
}

// Gets a buffer, fills it with `word` through mmap, submits it; its offset or -errno.
inline int fill_and_submit(int fd, u32 id, u32 size, u32 word) {
  const int offset = get_buffer(fd, id);
  if (offset < 0) return offset;
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
  if (map == MAP_FAILED) return -errno;
  for (u32 i = 0; i + 4 <= size; i += 4) std::memcpy(static_cast<char*>(map) + i, &word, 4);
  munmap(map, size);
  const int rc = submit(fd, id, offset);
  return rc < 0 ? rc : offset;
}

}  // namespace camsim_test
