// The library logs through vsyslog; defining it (and the fortified and
// variadic forms) in the test program takes every call before the C library
// sees it.
#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "test_support.h"

namespace zantrel::test {
namespace {

struct Capture {
  std::mutex mutex;
  std::vector<LogRecord> records;
};
Capture& capture() {
  static Capture capture;
  return capture;
}

void record(int priority, const char* format, va_list args) {
  char buffer[1024];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard lock(capture().mutex);
  capture().records.push_back({priority & LOG_PRIMASK, buffer});
}

}  // namespace

std::vector<LogRecord> captured_logs() {
  std::lock_guard lock(capture().mutex);
  return capture().records;
}

void clear_captured_logs() {
  std::lock_guard lock(capture().mutex);
  capture().records.clear();
}

bool logged_once(int priority, const std::string& message) {
  return std::ranges::count(captured_logs(), LogRecord{priority, message}) == 1;
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
