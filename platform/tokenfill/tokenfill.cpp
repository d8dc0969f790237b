// The exported C interface: argument checks and the context's life. Nothing
// thrown inside gets past these functions.
#include <cerrno>
#include <cstddef>
#include <new>

#include "tokenfill_internal.h"

// Callers outside this library set use_local_time by its offset.
static_assert(sizeof(tokenfill_context) == 64);
static_assert(offsetof(tokenfill_context, use_local_time) == 60);
static_assert(sizeof(tokenfill_context::use_local_time) == 4);

namespace {

bool alive(const tokenfill_context* context) {
  return context != nullptr && context->magic == TOKENFILL_MAGIC;
}

}  // namespace

extern "C" {

tokenfill_context* tokenfill_init(void) noexcept {
  auto* context = new (std::nothrow) tokenfill_context{};
  if (context == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  context->magic = TOKENFILL_MAGIC;
  tokenfill::cache_host_name(context->hostname);
  return context;
}

int tokenfill_expand(char* out, size_t size, const char* template_text, tokenfill_context* context,
                     const struct timeval* time) noexcept {
  if (out == nullptr || size == 0 || template_text == nullptr || !alive(context)) {
    errno = EINVAL;
    return -1;
  }
  try {
    return tokenfill::expand({out, size}, template_text, *context, time);
  } catch (...) {
    // Only the copy of an unusually long conversion allocates.
    out[0] = '\0';
    errno = ENOMEM;
    return -1;
  }
}

void tokenfill_exit(tokenfill_context* context) noexcept {
  if (context == nullptr) {
    return;
  }
  if (!alive(context)) {
    errno = EINVAL;
    return;
  }
  context->magic = 0;
  delete context;
}

}  // extern "C"
