/* An ordinary program that knows nothing of the simulator: it opens the
 * camera node, creates an overlay and prints what it got. */
#include <fcntl.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "zantrel-driver/cam_ioctl.h"

int main(void) {
  internal_overlay rec = {.type = 4, .width = 16, .height = 8, .nbr_buffers = 1};
  int fd = open("/dev/cam0", O_RDWR);
  if (fd < 0) return 3;
  if (ioctl(fd, CAM_IOC_CREATE_OVERLAY, &rec) != 0) return 4;
  printf("%u %u %d\n", rec.id, rec.buffer_size, access("/dev/galcore", F_OK) == 0);
  return close(fd);
}
