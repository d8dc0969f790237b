// The camera's way of using the library: an owner process, applications
// changing overlays at the same time, and an observer reading the state.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "api_test_util.h"
#include "test_support.h"

namespace {

// zantrelctl with these arguments: what it printed, and its exit status.
std::string zantrelctl(const std::string& arguments, int* status) {
  std::string output;
  FILE* pipe = popen((std::string(ZANTRELCTL) + " " + arguments).c_str(), "r");
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  *status = pclose(pipe);
  return output;
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
  EXPECT_EQ(WEXITSTATUS(status), 1) << "no table: exit status 1";
}

TEST(CameraProcesses, ShowDescribesASmallScene) {
  ASSERT_EQ(camsim_reset(), 0);
  ASSERT_GT(overlay_init(0), 0);
  overlay ovl = api_test::plain(64, 32, 5);
  ovl.position = {0.25F, 0.5F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  int handle = overlay_create(&ovl);
  ASSERT_EQ(overlay_add_globally(handle), 0);
  ASSERT_EQ(overlay_add_to_channel(handle, 2), 0);
  ASSERT_EQ(overlay_add_to_stream(handle, 0, 3), 0);
  overlay_palette_color color{0xFF, 0x12, 0x34, 0x56, 1};
  ASSERT_EQ(overlay_palette_set_color(&color, 15), 0);

  int status = 0;
  const nlohmann::json state = nlohmann::json::parse(zantrelctl("show --json", &status));
  ASSERT_EQ(status, 0);
  EXPECT_EQ(state["version"], 4);
  ASSERT_EQ(state["entries"].size(), 1U);
  const nlohmann::json& entry = state["entries"][0];
  EXPECT_EQ(entry["handle"], handle);
  EXPECT_EQ(entry["type_name"], "plain");
  EXPECT_EQ(entry["width"], 64);
  EXPECT_EQ(entry["priority"], 5);
  EXPECT_EQ(entry["position"]["normalized"], true);
  EXPECT_EQ(state["global"], nlohmann::json::array({handle}));
  EXPECT_EQ(state["channels"]["2"], nlohmann::json::array({handle}));
  ASSERT_EQ(state["streams"].size(), 1U);
  EXPECT_EQ(state["streams"][0]["stream"], 3);
  EXPECT_EQ(state["streams"][0]["version"], 1);
  EXPECT_EQ(state["palette"][15]["argb"], "0xFF123456");

  std::string text = zantrelctl("show", &status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(text.find("main table version 4"), std::string::npos) << text;
  EXPECT_NE(text.find("stream 3: version 1, 1"), std::string::npos) << text;
  std::printf("%s", text.c_str());
  EXPECT_EQ(overlay_deinit(), 0);
}

}  // namespace
