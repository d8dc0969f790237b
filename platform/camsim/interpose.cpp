// The C library entry points that the simulator takes over. Each one looks
// at the path or descriptor, answers the simulator's own, and hands every
// other call to the next definition in the search order unchanged.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "driver.h"
#include "state.h"

namespace {

template <typename Fn>
Fn next_definition(std::atomic<Fn>& cache, const char* name) {
  Fn fn = cache.load(std::memory_order_acquire);
  if (fn == nullptr) {
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    cache.store(fn, std::memory_order_release);
  }
  return fn;
}

#define CAMSIM_NEXT(name, type)                 \
  ([]() {                                       \
    static std::atomic<type> cache{nullptr};    \
    return next_definition<type>(cache, #name); \
  }())

using open_fn = int (*)(const char*, int, ...);
using openat_fn = int (*)(int, const char*, int, ...);
using open2_fn = int (*)(const char*, int);
using openat2_fn = int (*)(int, const char*, int);
using ioctl_fn = int (*)(int, unsigned long, ...);
using access_fn = int (*)(const char*, int);
using mmap_fn = void* (*)(void*, size_t, int, int, int, off_t);
using mmap64_fn = void* (*)(void*, size_t, int, int, int, off64_t);
using shm_open_fn = int (*)(const char*, int, mode_t);
using ftruncate_fn = int (*)(int, off_t);
using ftruncate64_fn = int (*)(int, off64_t);
using fopen_fn = FILE* (*)(const char*, const char*);

// The mode argument exists only when the flags ask for one.
bool takes_mode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

int missing(void) {
  errno = ENOSYS;
  return -1;
}

}  // namespace

#define CAMSIM_INTERPOSED extern "C" __attribute__((visibility("default")))

// The optional mode argument of an open call: va_start needs the variadic
// function's own frame, so this cannot be a function.
#define CAMSIM_READ_MODE(mode, flags)            \
  mode_t mode = 0;                               \
  if (takes_mode(flags)) {                       \
    va_list ap;                                  \
    va_start(ap, flags);                         \
    mode = static_cast<mode_t>(va_arg(ap, int)); \
    va_end(ap);                                  \
  }

CAMSIM_INTERPOSED int open(const char* path, int flags, ...) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  CAMSIM_READ_MODE(mode, flags);
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(open, open_fn);
  return next != nullptr ? next(path, flags, mode) : missing();
}

CAMSIM_INTERPOSED int open64(const char* path, int flags, ...) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  CAMSIM_READ_MODE(mode, flags);
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(open64, open_fn);
  return next != nullptr ? next(path, flags, mode) : missing();
}

CAMSIM_INTERPOSED int openat(int dirfd, const char* path, int flags, ...) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  CAMSIM_READ_MODE(mode, flags);
  // Absolute paths ignore dirfd, so only they can name a node.
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(openat, openat_fn);
  return next != nullptr ? next(dirfd, path, flags, mode) : missing();
}

CAMSIM_INTERPOSED int openat64(int dirfd, const char* path, int flags, ...) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  CAMSIM_READ_MODE(mode, flags);
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(openat64, openat_fn);
  return next != nullptr ? next(dirfd, path, flags, mode) : missing();
}

// The fortified variants that _FORTIFY_SOURCE builds call instead.
CAMSIM_INTERPOSED int __open_2(const char* path, int flags) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(__open_2, open2_fn);
  return next != nullptr ? next(path, flags) : missing();
}

CAMSIM_INTERPOSED int __open64_2(const char* path, int flags) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(__open64_2, open2_fn);
  return next != nullptr ? next(path, flags) : missing();
}

CAMSIM_INTERPOSED int __openat_2(int dirfd, const char* path, int flags) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(__openat_2, openat2_fn);
  return next != nullptr ? next(dirfd, path, flags) : missing();
}

CAMSIM_INTERPOSED int __openat64_2(int dirfd, const char* path, int flags) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return -1;
  if (const int node = camsim::node_of_path(path); node >= 0)
    return camsim::open_node_descriptor(node, flags);
  auto next = CAMSIM_NEXT(__openat64_2, openat2_fn);
  return next != nullptr ? next(dirfd, path, flags) : missing();
}

CAMSIM_INTERPOSED int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  // The descriptor's file says whether it is ours, so descriptors that were
  // dup'ed, inherited over fork or passed over exec are recognised too.
  if (const int node = camsim::node_of_descriptor(fd); node >= 0) {
    const camsim::Attachment* a = camsim::attach_existing();
    const int rc = a != nullptr ? camsim::run_command(*a, node, request, arg) : -EIO;
    if (rc >= 0) return rc;
    errno = -rc;
    return -1;
  }
  auto next = CAMSIM_NEXT(ioctl, ioctl_fn);
  return next != nullptr ? next(fd, request, arg) : missing();
}

void* camsim::libc_mmap(void* address, std::size_t length, int prot, int flags, int fd,
                        off_t offset) {
  auto next = CAMSIM_NEXT(mmap, mmap_fn);
  if (next != nullptr) return next(address, length, prot, flags, fd, offset);
  errno = ENOSYS;
  return MAP_FAILED;
}

// A node's descriptor maps overlay buffers only, as the driver's own mmap
// would; every other mapping goes to the C library unchanged.
template <typename Offset>
void* map_node(int node, void* address, std::size_t length, int prot, int flags, int fd,
               Offset offset) {
  if (static_cast<off_t>(offset) != offset) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  const camsim::Attachment* a = camsim::attach_existing();
  const int open_flags = fcntl(fd, F_GETFL);
  if (a == nullptr || open_flags < 0) return MAP_FAILED;
  return camsim::map_buffer(*a, node, open_flags, address, length, prot, flags,
                            static_cast<off_t>(offset));
}

CAMSIM_INTERPOSED void* mmap(void* address, size_t length, int prot, int flags, int fd,
                             off_t offset) noexcept {
  if ((flags & MAP_ANONYMOUS) == 0) {
    if (camsim::sweep_fails(CAMSIM_CALL_MMAP)) return MAP_FAILED;
    if (const int node = camsim::node_of_descriptor(fd); node >= 0)
      return map_node(node, address, length, prot, flags, fd, offset);
  }
  return camsim::libc_mmap(address, length, prot, flags, fd, offset);
}

CAMSIM_INTERPOSED void* mmap64(void* address, size_t length, int prot, int flags, int fd,
                               off64_t offset) noexcept {
  if ((flags & MAP_ANONYMOUS) == 0) {
    if (camsim::sweep_fails(CAMSIM_CALL_MMAP)) return MAP_FAILED;
    if (const int node = camsim::node_of_descriptor(fd); node >= 0)
      return map_node(node, address, length, prot, flags, fd, offset);
  }
  auto next = CAMSIM_NEXT(mmap64, mmap64_fn);
  if (next != nullptr) return next(address, length, prot, flags, fd, offset);
  errno = ENOSYS;
  return MAP_FAILED;
}

CAMSIM_INTERPOSED int access(const char* path, int mode) noexcept {
  if (camsim::is_gpu_path(path)) {
    const camsim::Attachment* a = camsim::attach();
    if (a == nullptr) return -1;
    std::uint32_t present = 0;
    {
      camsim::Lock lock(*a);
      present = lock.held() ? a->state->galcore : 0;
    }
    if (present != 0) return 0;
    errno = ENOENT;
    return -1;
  }
  if (camsim::node_of_path(path) >= 0) return 0;
  auto next = CAMSIM_NEXT(access, access_fn);
  return next != nullptr ? next(path, mode) : missing();
}

// Shared-memory objects and file sizes go to the C library, but a sweep over
// failure points may fail them.
int camsim::libc_shm_open(const char* name, int flags, mode_t mode) {
  auto next = CAMSIM_NEXT(shm_open, shm_open_fn);
  return next != nullptr ? next(name, flags, mode) : missing();
}

int camsim::libc_ftruncate(int fd, off_t length) {
  auto next = CAMSIM_NEXT(ftruncate, ftruncate_fn);
  return next != nullptr ? next(fd, length) : missing();
}

CAMSIM_INTERPOSED int shm_open(const char* name, int flags, mode_t mode) {
  if (camsim::sweep_fails(CAMSIM_CALL_SHM_OPEN)) return -1;
  return camsim::libc_shm_open(name, flags, mode);
}

CAMSIM_INTERPOSED int ftruncate(int fd, off_t length) noexcept {
  if (camsim::sweep_fails(CAMSIM_CALL_FTRUNCATE)) return -1;
  return camsim::libc_ftruncate(fd, length);
}

CAMSIM_INTERPOSED int ftruncate64(int fd, off64_t length) noexcept {
  if (camsim::sweep_fails(CAMSIM_CALL_FTRUNCATE)) return -1;
  auto next = CAMSIM_NEXT(ftruncate64, ftruncate64_fn);
  return next != nullptr ? next(fd, length) : missing();
}

// The C library's fopen opens its file without going through open().
CAMSIM_INTERPOSED FILE* fopen(const char* path, const char* mode) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return nullptr;
  auto next = CAMSIM_NEXT(fopen, fopen_fn);
  if (next != nullptr) return next(path, mode);
  errno = ENOSYS;
  return nullptr;
}

CAMSIM_INTERPOSED FILE* fopen64(const char* path, const char* mode) {
  if (camsim::sweep_fails(CAMSIM_CALL_OPEN)) return nullptr;
  auto next = CAMSIM_NEXT(fopen64, fopen_fn);
  if (next != nullptr) return next(path, mode);
  errno = ENOSYS;
  return nullptr;
}
