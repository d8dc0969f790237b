// The library's one road to syslog (and, with ZANTREL_LOG_STDERR, also to
// standard error): messages are passed on exactly as the
// callers format them (they carry their own "libzantrel: " prefix).
#pragma once

#include <syslog.h>

namespace zantrel {

void log_message(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The C library's text for an error number, safe to call from any thread.
const char* error_text(int error);

}  // namespace zantrel
