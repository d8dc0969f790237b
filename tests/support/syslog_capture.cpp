// The library logs through vsyslog; defining it (and the fortified and
// variadic forms) in the test program takes every call before the C library
// sees it.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "test_support.h"

namespace zantrel::test {
namespace {

std::mutex& log_mutex() {
  static std::mutex mutex;
  return mutex;
}

std::vector<LogRecord>& log_records() {
  static std::vector<LogRecord> records;
  return records;
}

void record(int priority, const char* format, va_list args) {
  char buffer[1024];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard lock(log_mutex());
  log_records().push_back({priority & LOG_PRIMASK, buffer});
}

}  // namespace

std::vector<LogRecord> captured_logs() {
  std::lock_guard lock(log_mutex());
  return log_records();
}

void clear_captured_logs() {
  std::lock_guard lock(log_mutex());
  log_records().clear();
}

bool logged_once(int priority, const std::string& message) {
  int count = 0;
  for (const auto& entry : captured_logs()) {
    count += entry.priority == priority && entry.message == message ? 1 : 0;
  }
  return count == 1;
}

}  // namespace zantrel::test

extern "C" {

void vsyslog(int priority, const char* format, va_list args) {
  zantrel::test::record(priority, format, args);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format, va_list args) {
  zantrel::test::record(priority, format, args);
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  zantrel::test::record(priority, format, args);
  va_end(args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  zantrel::test::record(priority, format, args);
  va_end(args);
}

}  // extern "C"
