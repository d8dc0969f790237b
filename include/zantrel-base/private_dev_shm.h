// A private tmpfs on /dev/shm for this process and its children, so that
// programs that make and remove shared tables and the simulator's state (the
// tests, the benchmarks, the kill test, the sweeps, the fuzz harnesses) never
// meet the machine's own. Without root, a user namespace that maps the caller
// to root gives the rights.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace zantrel {

inline bool write_proc_file(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  const bool ok =
      fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) close(fd);
  return ok;
}

// False, with errno, when neither a mount namespace nor the tmpfs can be had.
inline bool private_dev_shm(const char* size = "size=256m") {
  if (unshare(CLONE_NEWNS) != 0) {
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    write_proc_file("/proc/self/setgroups", "deny");
    if (!write_proc_file("/proc/self/uid_map", "0 " + uid + " 1\n") ||
        !write_proc_file("/proc/self/gid_map", "0 " + gid + " 1\n")) {
      return false;
    }
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV,
               (std::string("mode=1777,") + size).c_str()) == 0;
}

}  // namespace zantrel
