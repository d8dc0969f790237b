// Fuzzes the ".ovl" loader against the simulated driver. Whatever a file
// holds, a load either succeeds with exactly one new live overlay or fails
// with -1 and leaves none behind; under the sanitizers it also never reads
// outside the file or writes outside the overlay buffer.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "camsim.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel.h"

namespace {

struct Harness {
  std::string dir;
  std::string path;
  int device = -1;
};

Harness& harness() {
  static Harness h;
  return h;
}

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "ovl_loader_fuzz: %s\n", what);
  std::abort();
}

void remove_scratch() {
  unlink(harness().path.c_str());
  rmdir(harness().dir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Harness& h = harness();
  // The simulator keeps its state in /dev/shm, shared by every process on the
  // machine. A private tmpfs there keeps millions of loads away from anything
  // else running against it; without the rights for one, the machine's state
  // is used and only this process's own overlays are counted.
  if (zantrel::private_dev_shm("size=1g")) {
    camsim_reset();
  } else {
    std::fprintf(stderr, "ovl_loader_fuzz: no private /dev/shm, using the shared one\n");
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ovlfuzz.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    fail("cannot make a scratch directory");
  }
  h.dir = pattern;
  h.path = h.dir + "/input.ovl";
  std::atexit(remove_scratch);
  h.device = o_open_fd();
  if (h.device < 0) {
    fail("cannot open the simulated /dev/cam0 (is libcamsim linked first?)");
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Harness& h = harness();
  int file = open(h.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0 || (size > 0 && write(file, data, size) != static_cast<ssize_t>(size))) {
    fail("cannot write the input file");
  }
  close(file);

  overlay_image image{};
  image.overlay.position = {0, 0, 1, 1, 0};
  std::memcpy(image.path, h.path.c_str(), h.path.size() + 1);
  overlay_entry_data entry{};
  int id = 0;
  int before = camsim_live_count();
  int rc = o_create_image_overlay_from_ovl_file(&image, h.device, &id, &entry);
  int after = camsim_live_count();
  if (rc == 0) {
    if (id <= 0 || after != before + 1) {
      fail("a successful load did not leave exactly one overlay");
    }
    if (o_destroy_overlay(h.device, id) != 0) {
      fail("the loaded overlay cannot be destroyed");
    }
  } else if (rc != -1) {
    fail("a failed load returned something other than -1");
  } else if (after != before) {
    fail("a failed load left a hardware overlay alive");
  }
  return 0;
}
