#include "owner.h"

#include <cstdio>

#include "ipc.h"
#include "zantrel.h"

namespace vcam {

namespace {

// overlay_init for the life of the object.
class OwnerSession {
 public:
  OwnerSession() : fd_(overlay_init(0)) {}
  OwnerSession(const OwnerSession&) = delete;
  OwnerSession& operator=(const OwnerSession&) = delete;
  ~OwnerSession() {
    if (fd_ >= 0 && overlay_deinit() != 0) {
      std::fputs("zantrel-vcam: owner: overlay_deinit failed\n", stderr);
    }
  }
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

int run_owner(int ready_fd, int quit_fd) {
  OwnerSession session;
  if (!session.ok()) {
    std::fprintf(stderr, "zantrel-vcam: owner: overlay_init(0) returned %d\n", session.fd());
    return 1;
  }
  if (!send_byte(ready_fd, 'R')) {
    return 1;
  }
  char byte = 0;
  receive_byte(quit_fd, byte, /*ignore_stop=*/true);
  return 0;
}

}  // namespace vcam
