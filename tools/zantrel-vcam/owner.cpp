#include "owner.h"

#include <sys/mman.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ipc.h"
#include "session.h"
#include "zantrel.h"

namespace vcam {

namespace {

// Destroys the overlays that are still in the table, with their hardware
// overlays: what programs left when they ended. Their handles, rising.
std::vector<int> destroy_leftovers() {
  std::vector<int> handles;
  overlay_table* table = overlay_table_map();
  if (table == MAP_FAILED) {
    return handles;
  }
  if (overlay_table_lock(table) == 0) {
    // NOLINTNEXTLINE(modernize-loop-convert): the index gives the handle
    for (int index = 0; index < OVERLAY_MAX_HANDLES; ++index) {
      if (table->entries[index].in_use != 0) {
        handles.push_back(index + 1);
      }
    }
    overlay_table_unlock(table);
  }
  overlay_table_unmap(table);
  for (int handle : handles) {
    if (overlay_destroy(handle) < 0) {
      std::fprintf(stderr, "zantrel-vcam: owner: could not destroy overlay %d\n", handle);
    }
  }
  return handles;
}

}  // namespace

int run_owner(int ready_fd, int quit_fd, bool destroy_left_overlays) {
  zantrel::tools::LibrarySession session(zantrel::tools::LibrarySession::Role::kOwner,
                                         "zantrel-vcam: owner");
  if (!session.ok()) {
    std::fprintf(stderr, "zantrel-vcam: owner: overlay_init(0) returned %d\n", session.fd());
    return 1;
  }
  if (!send_byte(ready_fd, 'R')) {
    return 1;
  }
  char byte = 0;
  receive_byte(quit_fd, byte, /*ignore_stop=*/true);
  if (destroy_left_overlays) {
    if (const std::vector<int> left = destroy_leftovers(); !left.empty()) {
      std::string list;
      for (int handle : left) {
        // Not " " + ...: GCC 12 at -O3 warns of an overlap in that concatenation.
        list += ' ';
        list += std::to_string(handle);
      }
      std::fprintf(stderr, "zantrel-vcam: owner: destroyed %zu overlays that programs left:%s\n",
                   left.size(), list.c_str());
    }
  }
  return 0;
}

}  // namespace vcam
