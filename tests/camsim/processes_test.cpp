// One driver state for every process; clients killed mid-command; camsim-run.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "camsim_test_util.h"
#include "test_support.h"

namespace camsim_test {
namespace {

using zantrel::test::run_in_child;

TEST(Processes, OverlaysAndFaultsAreShared) {
  ASSERT_EQ(camsim_reset(), 0);
  Node inherited;  // a descriptor inherited over fork stays the driver's
  ASSERT_EQ(run_in_child([] { return create(Node().fd, record(4, 8, 8)) ? 0 : 1; }), 0);
  u32 id = 0;
  ASSERT_EQ(camsim_live_ids(&id, 1), 1);
  ASSERT_EQ(camsim_inject_fault(CAMSIM_GET_BUFFER, 2, EAGAIN), 0);
  EXPECT_EQ(run_in_child([&] { return get_buffer(Node().fd, id) == -EAGAIN ? 0 : 1; }), 0);
  EXPECT_EQ(get_buffer(inherited.fd, id), -EAGAIN);
  EXPECT_GT(fill_and_submit(inherited.fd, id, 8 * 8 * 4, 0x7F7F7F7F), 0);
  EXPECT_EQ(camsim_read_shown_buffer(id, nullptr, 0), 8 * 8 * 4);
  EXPECT_EQ(run_in_child([&] { return destroy(inherited.fd, id) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_GET_BUFFER), 3);
}

// A client stopped half way through a command, holding the driver lock, is
// killed there; the driver must be whole for the next client.
class KilledClient : public ::testing::TestWithParam<camsim_command> {};

TEST_P(KilledClient, LeavesTheDriverUsable) {
  ZANTREL_SKIP_UNLESS_ROBUST_MUTEXES();
  ASSERT_EQ(camsim_reset(), 0);
  // 80 MiB of the 128 MiB arena: a leaked one makes the next create fail.
  const internal_overlay big = record(4, 4096, 5120);
  Node node;
  const u32 id = GetParam() == CAMSIM_CREATE_OVERLAY ? 0 : create(node.fd, big);
  ASSERT_EQ(camsim_inject_stall(GetParam()), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    internal_overlay r = big;
    _exit(id == 0                                ? command(node.fd, CAM_IOC_CREATE_OVERLAY, &r)
          : GetParam() == CAMSIM_DESTROY_OVERLAY ? destroy(node.fd, id)
                                                 : submit(node.fd, id, get_buffer(node.fd, id)));
  }
  for (int i = 0; i < 4000 && camsim_stalled_count() == 0; ++i) usleep(5000);
  const bool stalled = camsim_stalled_count() == 1;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  ASSERT_TRUE(stalled) << "the client never reached the middle of its command";
  EXPECT_EQ(camsim_live_count(), GetParam() == CAMSIM_SUBMIT_BUFFER ? 1 : 0);
  EXPECT_EQ(camsim_stalled_count(), 0);
  EXPECT_EQ(destroy(node.fd, id), GetParam() == CAMSIM_SUBMIT_BUFFER ? 0 : -EINVAL);
  EXPECT_EQ(destroy(node.fd, create(node.fd, big)), 0);
  EXPECT_EQ(camsim_live_count(), 0);
}

INSTANTIATE_TEST_SUITE_P(MidCommand, KilledClient,
                         ::testing::Values(CAMSIM_CREATE_OVERLAY, CAMSIM_DESTROY_OVERLAY,
                                           CAMSIM_SUBMIT_BUFFER));

TEST(Processes, UnmodifiedProgramSeesTheNodesOnlyUnderCamsimRun) {
  ASSERT_EQ(camsim_reset(), 0);
  ASSERT_EQ(camsim_set_galcore(0), 0);
  EXPECT_EQ(system(CAMSIM_PROBE), 3 << 8) << "without the launcher there is no /dev/cam0";
  FILE* p = popen(CAMSIM_RUN " " CAMSIM_PROBE, "r");
  char out[64] = {};
  ASSERT_NE(fgets(out, sizeof out, p), nullptr);
  ASSERT_EQ(pclose(p), 0);
  u32 id = 0;
  ASSERT_EQ(camsim_live_ids(&id, 1), 1);
  EXPECT_EQ(out, std::to_string(id) + " 512 0\n");
  // Options are the launcher's, not a program's name.
  for (const char* option : {" --help", " -h"}) {
    p = popen((CAMSIM_RUN + std::string(option)).c_str(), "r");
    ASSERT_NE(fgets(out, sizeof out, p), nullptr);
    EXPECT_EQ(pclose(p), 0) << option;
    EXPECT_EQ(std::string(out).rfind("usage: camsim-run", 0), 0u) << out;
  }
  EXPECT_EQ(system(CAMSIM_RUN " --bogus " CAMSIM_PROBE " 2>/dev/null"), 2 << 8);
}

}  // namespace
}  // namespace camsim_test
