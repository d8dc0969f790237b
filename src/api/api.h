// Overlay API internals: the common pattern of every operation on shared
// state (map the main table, take its lock, work, release, unmap).
#pragma once

#include <exception>

#include "common/log.h"
#include "common/result.h"
#include "kept_overlays.h"
#include "table.h"
#include "zantrel.h"

namespace zantrel::api {

// No C++ exception crosses the C interface: an exported function that runs
// C++ code that may throw (std::bad_alloc above all) runs it through here
// and returns `fallback` with a message instead.
template <typename Result, typename Work>
Result guarded(const char* name, Result fallback, Work&& work) noexcept {
  try {
    return work();
  } catch (const std::exception& error) {
    log_message(LOG_ERR, "libzantrel: %s: internal error: %s\n", name, error.what());
  } catch (...) {
    log_message(LOG_ERR, "libzantrel: %s: internal error\n", name);
  }
  return fallback;
}

// Every public operation on overlays: refused with -1 and one message, before
// it touches the table or the driver, when the process is not bound
// (before overlay_init or overlay_attach, after overlay_deinit or
// overlay_detach); hardware overlays kept from a failed destroy get their
// next chance; and guarded.
template <typename Work>
int api_call(const char* name, Work&& work) noexcept {
  const int fd = o_get_fd();
  if (fd == 0) {
    log_message(LOG_ERR,
                "libzantrel: %s: the overlay library is not bound (overlay_init or "
                "overlay_attach first)\n",
                name);
    return -1;
  }
  return guarded(name, -1, [&] {
    device::destroy_kept(fd);
    return work();
  });
}

// Runs work(table) with the main table mapped and locked, and returns its
// result; -1 when the table cannot be mapped or locked (the lock logs).
template <typename Work>
int with_locked_table(Work&& work) {
  table::MappedTable table = table::map_table();
  if (!table) {
    return -1;
  }
  table::TableLock lock(table.get());
  if (lock.result() != 0) {
    return -1;
  }
  return work(table.get());
}

// 0 when handle names an entry in use; -6 (logged) when it names none. The
// caller holds the table lock.
inline int entry_in_use_locked(overlay_table* table, int handle) {
  const overlay_table_entry* entry = overlay_table_get_entry(table, handle);
  if (entry != nullptr && entry->in_use != 0) {
    return 0;
  }
  log_message(LOG_ERR, "libzantrel: Overlay handle %d is not in use\n", handle);
  return kBadHandle;
}

// The same under a lock of its own; -1 when the lock fails.
inline int entry_in_use(overlay_table* table, int handle) {
  table::TableLock lock(table);
  return lock.result() == 0 ? entry_in_use_locked(table, handle) : -1;
}

// overlay_text_render without its guard.
uint32_t* render_for_caller(const overlay_stream_context* stream, overlay_text* t, const char* text,
                            overlay_format format);

// Ends a stream context's own hardware copies and its text contexts.
void _clear_osc_local_overlays(overlay_stream_context* context);

}  // namespace zantrel::api
