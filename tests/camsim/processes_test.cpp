// One driver state for every process: overlays shared across processes,
// faults seen by all, and clients killed in the middle of a command.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "camsim_test_util.h"
#include "test_support.h"

namespace camsim_test {
namespace {

using zantrel::test::run_in_child;
using Processes = CamsimTest;

TEST_F(Processes, OverlayOfOneProcessIsFilledAndDestroyedByOthers) {
  Node inherited;  // descriptors inherited over fork stay the driver's
  std::uint32_t id = 0;
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_EQ(run_in_child([&] {
              Node node;
              internal_overlay r = record(4, 32, 32);
              if (command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r) != 0) return 1;
              return write(pipe_fds[1], &r.id, sizeof r.id) == sizeof r.id ? 0 : 2;
            }),
            0);
  ASSERT_EQ(read(pipe_fds[0], &id, sizeof id), static_cast<ssize_t>(sizeof id));
  close(pipe_fds[0]);
  close(pipe_fds[1]);

  ASSERT_GT(fill_and_submit(inherited.fd(), id, 32 * 32 * 4,
                            [](unsigned char* p, std::uint32_t n) { std::memset(p, 0x7F, n); }),
            0);
  unsigned char first = 0;
  EXPECT_EQ(camsim_read_shown_buffer(id, &first, 1), 32 * 32 * 4);
  EXPECT_EQ(first, 0x7F);

  EXPECT_EQ(run_in_child([&] { return destroy(inherited.fd(), id) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_DESTROY_OVERLAY), 1);
}

TEST_F(Processes, InjectedFaultIsSeenByEveryProcess) {
  ASSERT_EQ(camsim_inject_fault(CAMSIM_GET_BUFFER, 1, EAGAIN), 0);
  Node node;
  const std::uint32_t id = create(node.fd(), record(2, 8, 8));
  EXPECT_EQ(run_in_child([&] {
              Node own;
              return get_buffer(own.fd(), id) == -EAGAIN ? 0 : 1;
            }),
            0);
  EXPECT_GT(get_buffer(node.fd(), id), 0);  // used up in the other process
  EXPECT_EQ(camsim_call_count(CAMSIM_GET_BUFFER), 2);
}

// A client stopped half way through a command, holding the driver lock, and
// killed there; the next client must find the driver whole.
struct Interrupted {
  camsim_command command;
  int live_after;  // live overlays once the dead client is cleaned up
};

std::ostream& operator<<(std::ostream& os, const Interrupted& c) {
  return os << "command " << c.command;
}

class KilledClient : public CamsimTest, public ::testing::WithParamInterface<Interrupted> {};

TEST_P(KilledClient, LeavesTheDriverUsable) {
  const Interrupted c = GetParam();
  // Each big overlay takes 80 MiB of the 128 MiB arena, so a leaked one
  // would make the next big create fail.
  const internal_overlay big = record(4, 4096, 5120);
  Node node;
  std::uint32_t id = 0;
  if (c.command != CAMSIM_CREATE_OVERLAY) id = create(node.fd(), big);
  ASSERT_EQ(camsim_inject_stall(c.command), 0);

  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    internal_overlay r = big;
    if (c.command == CAMSIM_CREATE_OVERLAY) command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r);
    if (c.command == CAMSIM_DESTROY_OVERLAY) destroy(node.fd(), id);
    if (c.command == CAMSIM_SUBMIT_BUFFER)
      submit(node.fd(), id, static_cast<std::uint32_t>(get_buffer(node.fd(), id)));
    _exit(0);
  }
  ASSERT_GT(pid, 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (camsim_stalled_count() == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const bool stalled = camsim_stalled_count() == 1;
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(stalled) << "the client never reached the middle of its command";
  ASSERT_TRUE(WIFSIGNALED(status));

  EXPECT_EQ(camsim_live_count(), c.live_after);
  EXPECT_EQ(camsim_stalled_count(), 0);
  if (c.live_after == 1) {
    camsim_overlay_info info{};
    ASSERT_EQ(camsim_get_overlay_info(id, &info), 0);
    EXPECT_GE(info.shown, -1);
    ASSERT_EQ(destroy(node.fd(), id), 0);
  }
  const std::uint32_t again = create(node.fd(), big);
  EXPECT_NE(again, 0u) << "arena space of the dead client's command was not given back";
  EXPECT_EQ(destroy(node.fd(), again), 0);
  EXPECT_EQ(camsim_live_count(), 0);
}

INSTANTIATE_TEST_SUITE_P(MidCommand, KilledClient,
                         ::testing::Values(Interrupted{CAMSIM_CREATE_OVERLAY, 0},
                                           Interrupted{CAMSIM_DESTROY_OVERLAY, 0},
                                           Interrupted{CAMSIM_SUBMIT_BUFFER, 1}),
                         [](const auto& info) {
                           switch (info.param.command) {
                             case CAMSIM_CREATE_OVERLAY:
                               return std::string("Create");
                             case CAMSIM_DESTROY_OVERLAY:
                               return std::string("Destroy");
                             default:
                               return std::string("Submit");
                           }
                         });

}  // namespace
}  // namespace camsim_test
