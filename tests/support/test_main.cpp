// Every test program starts in a mount namespace of its own with a fresh
// tmpfs on /dev/shm: tests run in parallel and never see or remove the
// machine's own shared tables. ctest runs each test in its own process.
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "test_support.h"
#include "zantrel-base/private_dev_shm.h"

namespace zantrel::test {

std::vector<std::string> table_files() {
  std::vector<std::string> paths;
  glob_t found{};
  if (glob("/dev/shm/ovl_*", 0, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) paths.emplace_back(found.gl_pathv[i]);
  }
  globfree(&found);
  return paths;
}

std::string command_output(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    *status = -1;
    return output;
  }
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  const int result = pclose(pipe);
  *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
  return output;
}

pid_t spawn_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int status = 1;
    try {
      status = body();
    } catch (...) {
      status = 99;
    }
    _exit(status);
  }
  return pid;
}

int wait_child(pid_t pid) {
  if (pid < 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_in_child(const std::function<int()>& body) { return wait_child(spawn_child(body)); }

std::string robust_mutex_limit() {
  void* head = nullptr;
  size_t length = 0;
  if (syscall(SYS_get_robust_list, 0, &head, &length) != 0 && errno == ENOSYS) {
    return "robust futex lists are not supported here (get_robust_list: ENOSYS, as under "
           "qemu-user): a dead lock holder would never be detected";
  }
  return {};
}

}  // namespace zantrel::test

int main(int argc, char** argv) {
  if (!zantrel::private_dev_shm()) {
    std::fprintf(stderr, "test: cannot mount a private /dev/shm: %s\n", std::strerror(errno));
    return 2;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
