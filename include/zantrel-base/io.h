// Reading and writing whole buffers: a call cut short by a signal (EINTR) or
// by a partial transfer goes on where it stopped. Header-only, so that the
// library, the platform stand-ins, the tools and the tests share it without
// linking one another.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace zantrel {

// Reads until size bytes are in or the file ends. Returns the bytes read
// (fewer than size only at the end of the file), or -1 with errno set.
inline ssize_t read_full(int fd, void* data, size_t size) {
  auto* bytes = static_cast<unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, bytes + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// read_full at a position of the file (pread), leaving its offset alone.
inline ssize_t pread_full(int fd, void* data, size_t size, off_t offset) {
  auto* bytes = static_cast<unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// Exactly size bytes, or false (end of file or error).
inline bool read_exactly(int fd, void* data, size_t size) {
  return read_full(fd, data, size) == static_cast<ssize_t>(size);
}
inline bool pread_exactly(int fd, void* data, size_t size, off_t offset) {
  return pread_full(fd, data, size, offset) == static_cast<ssize_t>(size);
}

// Writes all of data; false on an error (errno set) or when nothing more
// can be written.
inline bool write_all(int fd, const void* data, size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, bytes + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// write_all at a position of the file (pwrite), leaving its offset alone.
inline bool pwrite_all(int fd, const void* data, size_t size, off_t offset) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace zantrel
