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

}  // namespace zantrel::test
