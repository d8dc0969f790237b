#include "log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zantrel {
namespace {

// ZANTREL_LOG_STDERR set to anything but "" or "0" copies every message to
// standard error, for workstations and containers without a syslog daemon,
// where syslog drops them. Read at every message: messages are rare, and a
// program may set it after the library was loaded.
bool copy_to_stderr() {
  const char* value = std::getenv("ZANTREL_LOG_STDERR");
  return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

// One write of the whole message, so that messages of several threads and
// processes sharing the terminal are not interleaved; a missing final
// newline is added.
void write_to_stderr(const char* format, va_list args) {
  char text[1024];
  const int n = std::vsnprintf(text, sizeof text - 1, format, args);
  if (n < 0) return;
  std::size_t length = std::min(static_cast<std::size_t>(n), sizeof text - 2);
  if (length == 0 || text[length - 1] != '\n') text[length++] = '\n';
  while (write(STDERR_FILENO, text, length) < 0 && errno == EINTR) {
  }
}

}  // namespace

void log_message(int priority, const char* format, ...) {
  const int saved_errno = errno;  // callers may still report it
  va_list args;
  va_start(args, format);
  if (copy_to_stderr()) {
    va_list copy;
    va_copy(copy, args);
    write_to_stderr(format, copy);
    va_end(copy);
  }
  vsyslog(priority, format, args);
  va_end(args);
  errno = saved_errno;
}

const char* error_text(int error) {
  // strerrordesc_np never touches shared buffers, unlike strerror.
  const char* text = strerrordesc_np(error);
  return text != nullptr ? text : "Unknown error";
}

}  // namespace zantrel
