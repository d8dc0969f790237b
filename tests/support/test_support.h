// Test support: a private /dev/shm for every test process, capture of the
// library's syslog calls, and running code in a child process.
#pragma once

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

// Runs body in a forked child and returns its exit status (0 to 255), or
// 128 + signal when it was killed. The child never returns into the test.
int run_in_child(const std::function<int()>& body);

}  // namespace zantrel::test
