// camsim-run gives an unmodified program the camera's device nodes.
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "camsim_test_util.h"

namespace camsim_test {
namespace {

struct Outcome {
  int status;
  std::string out;
};

Outcome run(const std::string& command) {
  Outcome r{-1, {}};
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return r;
  char buf[256];
  while (fgets(buf, sizeof buf, p) != nullptr) r.out += buf;
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

TEST_F(CamsimTest, UnmodifiedProgramSeesTheNodesOnlyUnderTheLauncher) {
  const Outcome plain = run(std::string(CAMSIM_PROBE) + " 2>/dev/null");
  EXPECT_EQ(plain.status, 3) << "without the launcher there is no /dev/cam0";

  ASSERT_EQ(camsim_set_galcore(0), 0);
  const Outcome launched = run(std::string(CAMSIM_RUN) + " " + CAMSIM_PROBE);
  ASSERT_EQ(launched.status, 0) << launched.out;
  std::uint32_t ids[2] = {};
  ASSERT_EQ(camsim_live_ids(ids, 2), 1);
  EXPECT_EQ(launched.out, std::to_string(ids[0]) + " 512 0\n");
  EXPECT_EQ(camsim_call_count(CAMSIM_CREATE_OVERLAY), 1);
}

}  // namespace
}  // namespace camsim_test
