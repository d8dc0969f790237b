// Overlay API internals: the common pattern of every operation on shared
// state (map the main table, take its lock, work, release, unmap).
#pragma once

#include "table.h"
#include "zantrel.h"

namespace zantrel::api {

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

// Ends a stream context's own hardware copies and its text contexts.
void _clear_osc_local_overlays(overlay_stream_context* context);

}  // namespace zantrel::api
