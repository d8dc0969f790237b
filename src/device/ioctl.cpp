#include <sys/ioctl.h>

#include <cerrno>

#include "device.h"

namespace zantrel::device {

int device_ioctl(int fd, uint32_t request, void* arg) {
  int rc;
  do {
    rc = ::ioctl(fd, request, arg);
  } while (rc == -1 && errno == EINTR);
  return rc;
}

int device_ioctl_value(int fd, uint32_t request, unsigned long value) {
  int rc;
  do {
    rc = ::ioctl(fd, request, value);
  } while (rc == -1 && errno == EINTR);
  return rc;
}

}  // namespace zantrel::device
