// The camera's way of using the library: an owner process, applications
// changing overlays at the same time, and an observer reading the state.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "api_test_util.h"
#include "test_support.h"

namespace {

// zantrelctl with these arguments: what it printed, and its exit status.
std::string zantrelctl(const std::string& arguments, int* status) {
  return zantrel::test::command_output(std::string(ZANTRELCTL) + " " + arguments, status);
}

// An application: overlays made, filled, moved, put into and out of sets
// and destroyed, many times. Returns the number of failed steps.
int application(int seed) {
  if (overlay_attach(0) <= 0) return 100;
  int failures = 0;
  for (int round = 0; round < 40; ++round) {
    overlay ovl = api_test::plain(16, 16, (seed * 7 + round) % 5);
    const int handle = overlay_create(&ovl);
    int32_t offset = -1;
    if (handle < 1 || overlay_get_buffer(handle, &offset) != 0) {
      ++failures;
      continue;
    }
    void* pixels =
        mmap(nullptr, ovl.buffer_size, PROT_READ | PROT_WRITE, MAP_SHARED, o_get_fd(), offset);
    if (pixels != MAP_FAILED) {
      std::memset(pixels, seed, ovl.buffer_size);
      munmap(pixels, ovl.buffer_size);
    }
    ovl.position.x = static_cast<float>(round);
    // Each application has one overlay at a time, so no set ever fills.
    std::vector<int> results = {overlay_submit_buffer(handle, offset, 0),
                                overlay_update(handle, &ovl), overlay_add_globally(handle),
                                overlay_add_to_channel(handle, static_cast<unsigned>(seed)),
                                overlay_add_to_stream(handle, 0, seed)};
    if (round % 3 == 0) {
      results.push_back(overlay_remove_from_stream(handle, 0, seed));
      results.push_back(overlay_remove_globally(handle));
    }
    results.push_back(overlay_destroy(handle));
    failures += static_cast<int>(std::ranges::count_if(results, [](int r) { return r != 0; }));
  }
  return failures + (overlay_detach() != 0 ? 1 : 0);
}

TEST(CameraProcesses, OwnerApplicationsAndObserver) {
  ASSERT_EQ(camsim_reset(), 0);
  int ready[2], done[2];
  ASSERT_TRUE(pipe(ready) == 0 && pipe(done) == 0);
  pid_t owner = zantrel::test::spawn_child([&] {
    int fd = overlay_init(0);
    char byte = fd > 0 ? 'y' : 'n';
    write(ready[1], &byte, 1);
    read(done[0], &byte, 1);  // until the others have finished
    return fd > 0 && overlay_deinit() == 0 ? 0 : 1;
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, 'y');

  pid_t first = zantrel::test::spawn_child([] { return application(1); });
  pid_t second = zantrel::test::spawn_child([] { return application(2); });
  pid_t observer = zantrel::test::spawn_child([] {
    for (int i = 0; i < 10; ++i) {
      int status = 0;
      auto state = nlohmann::json::parse(zantrelctl("show --json", &status), nullptr, false);
      if (status != 0) return 1;
      if (state.is_discarded() || !state.contains("entries") || state["palette"].size() != 16) {
        return 2;
      }
    }
    return 0;
  });

  EXPECT_EQ(zantrel::test::wait_child(first), 0);
  EXPECT_EQ(zantrel::test::wait_child(second), 0);
  EXPECT_EQ(zantrel::test::wait_child(observer), 0);
  ASSERT_EQ(write(done[1], "x", 1), 1);
  EXPECT_EQ(zantrel::test::wait_child(owner), 0);

  EXPECT_TRUE(api_test::table_files().empty());
  EXPECT_EQ(camsim_live_count(), 0);
  int status = 0;
  zantrelctl("show 2>/dev/null", &status);
  EXPECT_EQ(status, 1) << "no table: exit status 1";
}

}  // namespace
