// Test support: a private /dev/shm for every test process, capture of the
// library's syslog calls, and running code in a child process.
#pragma once

#include <sys/types.h>
#include <syslog.h>

#include <functional>
#include <string>
#include <vector>

namespace zantrel::test {

struct LogRecord {
  int priority;
  std::string message;
  bool operator==(const LogRecord&) const = default;
};

// Every syslog call of this process since the last clear, in order.
std::vector<LogRecord> captured_logs();
void clear_captured_logs();
// True when exactly one record has this priority and message.
bool logged_once(int priority, const std::string& message);

// Every "/dev/shm/ovl_*" object there is: what the library may leave behind.
std::vector<std::string> table_files();

// Starts body in a forked child whose exit status is body's result; the
// child never returns into the test.
pid_t spawn_child(const std::function<int()>& body);
// The exit status of a child (0 to 255), or 128 + signal when it was killed.
int wait_child(pid_t pid);
// spawn_child and wait_child in one.
int run_in_child(const std::function<int()>& body);

// What a shell command printed on its standard output, and its exit status
// (0 to 255, or -1 when it did not exit).
std::string command_output(const std::string& command, int* status);

// Empty when the kernel tells a robust mutex's next locker that its holder
// died, as the camera's does; otherwise why it cannot (qemu-user keeps no
// robust futex list, so a dead holder's lock is never released).
std::string robust_mutex_limit();

}  // namespace zantrel::test

// Skips the test, with the reason, where a dead lock holder goes unseen.
#define ZANTREL_SKIP_UNLESS_ROBUST_MUTEXES()                                           \
  do {                                                                                 \
    if (const std::string why = ::zantrel::test::robust_mutex_limit(); !why.empty()) { \
      GTEST_SKIP() << why;                                                             \
    }                                                                                  \
  } while (0)
