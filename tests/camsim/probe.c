/* An ordinary program that talks to the camera driver and knows nothing of
 * the simulator: it opens the node, creates an overlay and prints its id. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "cam_ioctl.h"

int main(void) {
  int fd = open("/dev/cam0", O_RDWR);
  if (fd < 0) {
    perror("/dev/cam0");
    return 3;
  }
  internal_overlay rec;
  memset(&rec, 0, sizeof rec);
  rec.type = 4;
  rec.width = 16;
  rec.height = 8;
  rec.nbr_buffers = 1;
  if (ioctl(fd, CAM_IOC_CREATE_OVERLAY, &rec) != 0) {
    perror("create overlay");
    return 4;
  }
  printf("%u %u %d\n", rec.id, rec.buffer_size, access("/dev/galcore", F_OK) == 0);
  close(fd);
  return 0;
}
