// The library for the life of an object: overlay_init in the owner,
// overlay_attach in every other process, and overlay_deinit or
// overlay_detach when it goes.
#pragma once

#include <cstdio>

#include "zantrel.h"

namespace zantrel::tools {

class LibrarySession {
 public:
  enum class Role { kOwner, kAttached };

  // who names the process in the message printed when the end fails
  // ("zantrel-vcam: owner"); nullptr for none.
  explicit LibrarySession(Role role, const char* who = nullptr)
      : role_(role), who_(who), fd_(role == Role::kOwner ? overlay_init(0) : overlay_attach(0)) {}
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;
  ~LibrarySession() {
    if (fd_ < 0) return;
    const bool owner = role_ == Role::kOwner;
    if ((owner ? overlay_deinit() : overlay_detach()) != 0 && who_ != nullptr) {
      std::fprintf(stderr, "%s: %s failed\n", who_, owner ? "overlay_deinit" : "overlay_detach");
    }
  }

  // The device descriptor, or the failed call's negative result.
  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] bool ok() const { return fd_ >= 0; }

 private:
  Role role_;
  const char* who_;
  int fd_;
};

}  // namespace zantrel::tools
