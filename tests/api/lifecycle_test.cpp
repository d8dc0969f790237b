// Binding a process to the device and the tables, in every state.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "api_test_util.h"
#include "test_support.h"

namespace {

using zantrel::test::captured_logs;
using zantrel::test::clear_captured_logs;
using zantrel::test::logged_once;

bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

class Lifecycle : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    clear_captured_logs();
  }
  void TearDown() override {
    overlay_deinit();
    overlay_table_deinit();
  }
};

// As a daemon that closed its standard input: the device is never descriptor 0.
TEST_F(Lifecycle, InitWithOwnDescriptorMakesTableAndLoadsPalette) {
  EXPECT_EQ(zantrel::test::run_in_child([] {
              close(0);
              const int fd = overlay_init(0);
              const bool bound = fd > 2 && o_get_fd() == fd && !fd_open(0) &&
                                 overlay_table_exists() == 1 && captured_logs().empty() &&
                                 camsim_call_count(CAMSIM_SET_PALETTE_COLOR) == 30;  // both banks
              const bool unbound = overlay_deinit() == 0 && o_get_fd() == 0 && !fd_open(fd) &&
                                   api_test::table_files().empty();
              return bound && unbound ? 0 : 1;
            }),
            0);
}

// Attaching needs the main table; a descriptor the caller passed is never
// closed, one the library opened is closed again.
TEST_F(Lifecycle, AttachNeedsTheMainTableAndCallersDescriptorIsNeverClosed) {
  int before = camsim_open_count();
  EXPECT_EQ(overlay_attach(0), -1);
  EXPECT_TRUE(camsim_open_count() == before + 1 && o_get_fd() == 0);
  ASSERT_EQ(captured_logs().size(), 1U);  // says what is missing
  EXPECT_NE(captured_logs()[0].message.find("no overlay table /ovl_table"), std::string::npos);

  int own = open("/dev/cam0", O_RDWR);
  ASSERT_GT(own, 0);
  EXPECT_EQ(overlay_init(own), own);
  EXPECT_EQ(o_get_fd(), own);
  EXPECT_EQ(overlay_deinit(), 0);
  EXPECT_TRUE(o_get_fd() == 0 && fd_open(own) && api_test::table_files().empty());

  ASSERT_EQ(overlay_table_init(), 0);
  EXPECT_EQ(overlay_attach(own), own);
  EXPECT_EQ(overlay_detach(), 0);
  EXPECT_TRUE(fd_open(own));
  close(own);
  int fd = overlay_attach(0);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(overlay_detach(), 0);
  EXPECT_TRUE(o_get_fd() == 0 && !fd_open(fd) && overlay_table_exists() == 1);
}

// ZANTREL_LOG_STDERR copies each message, as syslog gets it, to standard
// error; unset, empty or "0" it does not.
TEST_F(Lifecycle, MessagesGoToStandardErrorOnRequest) {
  for (const char* value : std::initializer_list<const char*>{"1", "yes", "0", "", nullptr}) {
    const bool copied = value != nullptr && *value != '\0' && std::string(value) != "0";
    EXPECT_EQ(
        zantrel::test::run_in_child([value] {
          int out[2];
          if (pipe(out) != 0 || dup2(out[1], STDERR_FILENO) < 0) return 2;
          close(out[1]);
          value != nullptr ? setenv("ZANTREL_LOG_STDERR", value, 1)
                           : unsetenv("ZANTREL_LOG_STDERR");
          clear_captured_logs();
          overlay_attach(0);
          int none[2] = {0, 0};
          overlay_get_max_resolution(0, nullptr, reinterpret_cast<uint32_t*>(none));
          close(STDERR_FILENO);
          std::string written(4096, '\0');
          const ssize_t n = read(out[0], written.data(), written.size());
          written.resize(n > 0 ? static_cast<size_t>(n) : 0);
          std::string logged;
          for (const auto& record : captured_logs()) logged += record.message;
          return captured_logs().size() == 2 && written == logged ? 0 : written.empty() ? 1 : 3;
        }),
        copied ? 0 : 1)
        << (value != nullptr ? value : "unset");
  }
}

TEST_F(Lifecycle, ReinitWarnsOnceAndStartsAfresh) {
  int fd = overlay_init(0);
  ASSERT_GT(fd, 0);
  overlay ovl = api_test::plain(8, 8);
  ASSERT_EQ(overlay_create(&ovl), 1);
  clear_captured_logs();
  // Negative descriptors are refused before the state is touched.
  EXPECT_EQ(overlay_attach(-5), -2);
  EXPECT_EQ(overlay_init(-1), -2);
  EXPECT_EQ(o_get_fd(), fd);
  ASSERT_GT(overlay_init(0), 0);
  EXPECT_EQ(captured_logs().size(), 2U);
  EXPECT_EQ(captured_logs()[0].message, "libzantrel: Warning, reinitalizing overlay library.\n");
  overlay again = api_test::plain(8, 8);
  EXPECT_EQ(overlay_create(&again), 1) << "the table was made afresh";
}

TEST_F(Lifecycle, FailedTableCreation) {
  // A directory where the table should be makes its creation fail.
  ASSERT_EQ(mkdir("/dev/shm/ovl_table", 0700), 0);
  int lowest_free = dup(0);
  close(lowest_free);

  EXPECT_EQ(overlay_init(0), -1);
  EXPECT_EQ(o_get_fd(), 0);
  int next = dup(0);
  EXPECT_EQ(next, lowest_free) << "the library closed the descriptor it opened";
  close(next);

  int own = open("/dev/cam0", O_RDWR);
  EXPECT_EQ(overlay_init(own), -1);
  EXPECT_EQ(o_get_fd(), own) << "a caller's descriptor stays stored";
  EXPECT_TRUE(fd_open(own));
  overlay_detach();
  close(own);
  rmdir("/dev/shm/ovl_table");
}

TEST_F(Lifecycle, QueriesPassToTheDevice) {
  // Channel 0 asks "/dev/camquad", channel n "/dev/cam<n - 1>", with its key.
  uint32_t width = 1;
  uint32_t height = 1;
  for (auto [channel, node, key] : {std::tuple{0U, CAMSIM_NODE_CAMQUAD, 0xFF00U},
                                    {1U, 0, 0U},
                                    {3U, 2, 0x200U},
                                    {15U, 14, 0xE00U}}) {
    ASSERT_EQ(camsim_set_resolution(channel, 640 + channel, 360 + channel), 0);
    overlay_get_max_resolution(channel, &width, &height);
    int asked = -1;
    uint32_t asked_key = 1;
    ASSERT_EQ(camsim_last_stream_config(&asked, &asked_key), 0);
    EXPECT_EQ(std::tuple(width, height, asked, asked_key),
              std::tuple(640 + channel, 360 + channel, node, key));
  }
  long opens = camsim_open_count();
  clear_captured_logs();
  overlay_get_max_resolution(16, &width, &height);
  EXPECT_EQ(std::tuple(width, height, camsim_open_count()), std::tuple(0U, 0U, opens));
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: o_get_max_resolution: Invalid channel.\n"));
  ASSERT_EQ(camsim_inject_fault(CAMSIM_GET_STREAM_CONFIG, 1, EIO), 0);
  width = 5;
  overlay_get_max_resolution(2, &width, &height);
  EXPECT_EQ(width, 0U);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Internal error: Input/output error\n"));

  clear_captured_logs();
  height = 77;
  overlay_get_max_resolution(0, nullptr, &height);
  EXPECT_EQ(height, 77U);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Must provide valid pointers as input\n"));

  ASSERT_EQ(camsim_set_galcore(0), 0);
  EXPECT_STREQ(overlay_get_supported_gl_versions(), "");
  ASSERT_EQ(camsim_set_galcore(1), 0);
  EXPECT_STREQ(overlay_get_supported_gl_versions(), "GLES 2.0");

  clear_captured_logs();
  EXPECT_EQ(overlay_set_pixelation_size(1, 16), -3);
  EXPECT_TRUE(logged_once(
      LOG_WARNING, "libzantrel: o_overlay_set_pixelation_size: not supported for Zorvex 6\n"));
}

}  // namespace
