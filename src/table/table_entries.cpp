// Table entries and their handles, and membership in the global, source and
// channel sets. Callers hold table_mutex; nothing here maps or locks.
#include <cstring>

#include "common/log.h"
#include "table.h"

namespace zantrel::table {
namespace {

HandleSet channel_set(overlay_table* table, unsigned channel) {
  return {table->channel_handles[channel]};
}

// Handle to index for an operation that needs the entry in use.
int member_index(overlay_table* table, int handle) {
  int index = handle_index(handle);
  return index >= 0 && in_use(table, index) ? index : -1;
}

int add_to(overlay_table* table, int handle, HandleSet set, bool counts_as_change) {
  int index = member_index(table, handle);
  if (index < 0) {
    return kBadHandle;
  }
  int rc = _add_handle_to_array(table, index, set);
  if (rc == kOk && counts_as_change) {
    raise_version(table->version);
  }
  return rc;
}

int remove_from(overlay_table* table, int handle, HandleSet set, bool counts_as_change) {
  int index = handle_index(handle);
  if (index < 0) {
    return kBadHandle;
  }
  int rc = _remove_handle_from_array(table, index, set);
  if (rc == kOk && counts_as_change) {
    raise_version(table->version);
  }
  return rc;
}

}  // namespace
}  // namespace zantrel::table

using namespace zantrel;         // NOLINT(google-build-using-namespace)
using namespace zantrel::table;  // NOLINT(google-build-using-namespace)

extern "C" {

int overlay_table_create_overlay(overlay_table* table, const overlay_entry_data* data) {
  if (!mapped(table) || data == nullptr || data->type < OVERLAY_TYPE_PLAIN ||
      data->type > OVERLAY_TYPE_SCALABLE_IMAGE) {
    return kBadArgument;
  }
  for (int index = 0; index < kEntries; ++index) {
    overlay_table_entry& entry = table->entries[index];
    if (entry.in_use == 0) {
      entry.in_use = 1;
      std::memcpy(&entry.data, data, sizeof entry.data);
      raise_version(table->version);
      return index + 1;
    }
  }
  zantrel::log_message(LOG_ERR, "libzantrel: No more handles available.\n");
  return kNoFreeHandle;
}

int overlay_table_destroy_overlay(overlay_table* table, int handle) {
  int index = handle_index(handle);
  if (index < 0) {
    zantrel::log_message(LOG_ERR, "libzantrel: Not a valid handle (was %d)\n", handle);
    return kBadHandle;
  }
  if (!mapped(table)) {
    return kBadArgument;
  }
  overlay_table_entry& entry = table->entries[index];
  // The entry stays while a stream table may still name it.
  if (entry.stream_count != 0 && _remove_handle_from_streams(table, index) != kOk) {
    return kSystemError;
  }
  std::memset(&entry, 0, sizeof entry);

  bool removed = _remove_handle_from_array(table, index, table->global_handles) == kOk;
  removed = (_remove_handle_from_array(table, index, table->source_handles) == kOk) || removed;
  for (auto& channel : table->channel_handles) {
    removed = (_remove_handle_from_array(table, index, channel) == kOk) || removed;
  }
  if (removed) {
    raise_version(table->version);
  }
  return kOk;
}

overlay_table_entry* overlay_table_get_entry(overlay_table* table, int handle) {
  int index = handle_index(handle);
  return index >= 0 && mapped(table) ? &table->entries[index] : nullptr;
}

int overlay_table_update_overlay(overlay_table* table, int handle, const overlay_entry_data* data,
                                 int* replaced_kernel_id) {
  overlay_table_entry* entry = overlay_table_get_entry(table, handle);
  if (entry == nullptr) {
    return kBadHandle;
  }
  if (data == nullptr) {
    return kBadArgument;
  }
  int32_t old_id = entry->data.kernel_id;
  if (old_id != 0 && old_id != data->kernel_id && replaced_kernel_id != nullptr) {
    *replaced_kernel_id = old_id;
  }
  std::memmove(&entry->data, data, sizeof entry->data);
  raise_version(table->version);
  return kOk;
}

int overlay_table_find_handle_by_kernel_id(overlay_table* table, int kernel_id) {
  if (!mapped(table)) {
    return kBadHandle;
  }
  for (int index = 0; index < kEntries; ++index) {
    const overlay_table_entry& entry = table->entries[index];
    if (entry.in_use != 0 && entry.data.kernel_id == kernel_id) {
      return index + 1;
    }
  }
  return kBadHandle;
}

int overlay_table_add_overlay_globally(overlay_table* table, int handle) {
  return mapped(table) ? add_to(table, handle, table->global_handles, true) : kBadArgument;
}

int overlay_table_remove_overlay_globally(overlay_table* table, int handle) {
  return mapped(table) ? remove_from(table, handle, table->global_handles, true) : kBadArgument;
}

// The encoder never reads the source set, so its changes are not counted.
int overlay_table_add_overlay_to_source(overlay_table* table, int handle) {
  return mapped(table) ? add_to(table, handle, table->source_handles, false) : kBadArgument;
}

int overlay_table_remove_overlay_from_source(overlay_table* table, int handle) {
  return mapped(table) ? remove_from(table, handle, table->source_handles, false) : kBadArgument;
}

int overlay_table_add_overlay_to_channel(overlay_table* table, int handle, unsigned channel) {
  if (!mapped(table)) {
    return kBadArgument;
  }
  if (member_index(table, handle) < 0) {
    return kBadHandle;
  }
  if (channel >= kChannels) {
    return kBadChannel;
  }
  return add_to(table, handle, channel_set(table, channel), true);
}

int overlay_table_remove_overlay_from_channel(overlay_table* table, int handle, unsigned channel) {
  if (!mapped(table)) {
    return kBadArgument;
  }
  if (handle_index(handle) < 0) {
    return kBadHandle;
  }
  if (channel >= kChannels) {
    return kBadChannel;
  }
  return remove_from(table, handle, channel_set(table, channel), true);
}

int overlay_table_set_palette_color(overlay_table* table, const overlay_palette_color* color,
                                    unsigned index) {
  if (!mapped(table) || color == nullptr || index >= OVERLAY_PALETTE_SIZE) {
    return kBadArgument;
  }
  std::memcpy(&table->palette_copy[index], color, sizeof *color);
  return kOk;
}

int overlay_table_palette_get_all_colors(overlay_table* table, overlay_palette_color* colors) {
  if (!mapped(table) || colors == nullptr) {
    return kBadArgument;
  }
  std::memcpy(colors, table->palette_copy, sizeof table->palette_copy);
  return kOk;
}

void overlay_print_table_entry(const overlay_table_entry* entry) {
  if (entry == nullptr || entry->in_use == 0) {
    return;
  }
  switch (entry->data.type) {
    case OVERLAY_TYPE_PLAIN:
      overlay_print_overlay(&entry->data.description.ovl);
      break;
    case OVERLAY_TYPE_TEXT:
    case OVERLAY_TYPE_MODIFIABLE_TEXT:
      overlay_print_overlay_text(&entry->data.description.text);
      break;
    case OVERLAY_TYPE_IMAGE:
    case OVERLAY_TYPE_SCALABLE_IMAGE:
      overlay_print_overlay_image(&entry->data.description.image);
      break;
    default:
      break;
  }
}

}  // extern "C"
