#include "log.h"

#include <cstdarg>
#include <cstring>

namespace zantrel {

void log_message(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

const char* error_text(int error) {
  // strerrordesc_np never touches shared buffers, unlike strerror.
  const char* text = strerrordesc_np(error);
  return text != nullptr ? text : "Unknown error";
}

}  // namespace zantrel
