// Operations on plain overlays and on the sets that decide where an overlay
// shows. Each keeps the shared table and the driver in step; hardware
// overlays are created and destroyed outside the table lock.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "api.h"
#include "common/log.h"

namespace zantrel::api {
namespace {

// Plain overlays draw their palette pixels through the user bank.
constexpr uint32_t kUserBank = 1;

// The entry of a handle for an operation that talks to the driver about it.
template <typename Work>
int with_entry(int handle, int missing_result, Work&& work) {
  return with_locked_table([&](overlay_table* table) {
    overlay_table_entry* entry = overlay_table_get_entry(table, handle);
    return entry != nullptr ? work(table, entry) : missing_result;
  });
}

}  // namespace
}  // namespace zantrel::api

using zantrel::kBadArgument;
using zantrel::kBadHandle;
using zantrel::log_message;
using zantrel::api::with_entry;
using zantrel::api::with_locked_table;

extern "C" {

int overlay_create(overlay* ovl) {
  if (ovl == nullptr) {
    return kBadArgument;
  }
  return zantrel::api::api_call("overlay_create", [&] {
    ovl->palette_bank = zantrel::api::kUserBank;
    overlay_entry_data data{};
    zantrel::table::MappedTable table = zantrel::table::map_table();
    if (!table) {
      return -1;
    }
    data.width = ovl->width;
    data.height = ovl->height;
    int kernel_id = 0;
    if (int rc = o_create_overlay(o_get_fd(), ovl, &kernel_id, &data); rc < 0) {
      return rc;
    }
    data.type = OVERLAY_TYPE_PLAIN;
    data.kernel_id = kernel_id;
    data.description.ovl = *ovl;

    int handle = -1;
    {
      zantrel::table::TableLock lock(table.get());
      if (lock.result() == 0) {
        handle = overlay_table_create_overlay(table.get(), &data);
      }
    }
    table.reset();
    if (handle < 1) {
      // The table refused the entry: no hardware overlay may outlive it.
      zantrel::device::destroy_or_keep(o_get_fd(), kernel_id);
    }
    return handle;
  });
}

int overlay_destroy(int handle) {
  return zantrel::api::api_call("overlay_destroy", [&] {
    // Only a look-up that ran and found nothing is reported; a table that
    // cannot be mapped or locked fails without this message.
    bool missing = false;
    int rc = with_locked_table([&](overlay_table* table) {
      overlay_table_entry* entry = overlay_table_get_entry(table, handle);
      if (entry == nullptr || entry->in_use == 0) {
        missing = true;
        return entry == nullptr ? -1 : kBadHandle;
      }
      // The entry goes only once nothing names it any more and the driver
      // destroyed its overlay; a failure at either step leaves it in the
      // table, so that the call can be repeated and loses nothing. The
      // destroy is one short driver command, made under the lock so that no
      // other process can take the entry or its overlay meanwhile.
      const int index = handle - 1;
      if (entry->stream_count != 0 &&
          zantrel::table::_remove_handle_from_streams(table, index) != 0) {
        return -1;
      }
      if (zantrel::has_overlay(entry->data.kernel_id) &&
          o_destroy_overlay(o_get_fd(), entry->data.kernel_id) != 0) {
        return -1;
      }
      return overlay_table_destroy_overlay(table, handle) == 0 ? 0 : -1;
    });
    if (missing) {
      log_message(LOG_ERR, "libzantrel: Could not get overlay for this handle.\n");
    }
    return rc;
  });
}

int overlay_update(int handle, const overlay* ovl) {
  if (ovl == nullptr) {
    return kBadArgument;
  }
  return zantrel::api::api_call("overlay_update", [&] {
    return with_locked_table([&](overlay_table* table) {
      overlay_table_entry* entry = overlay_table_get_entry(table, handle);
      if (entry == nullptr) {
        log_message(LOG_ERR, "libzantrel: Could not update the overlay (handle %d)\n", handle);
        return kBadHandle;
      }
      if (entry->data.type == 0 || entry->in_use == 0) {
        log_message(LOG_ERR,
                    "libzantrel: Could not update the overlay (handle %d), it is not yet in use\n",
                    handle);
        return -1;
      }
      overlay& stored = entry->data.description.ovl;
      stored.priority = ovl->priority;
      stored.ignore_stream_filter = ovl->ignore_stream_filter;
      if (utils_compare_overlay_position(&ovl->position, &stored.position) != 0) {
        const overlay_position former = stored.position;
        stored.position = ovl->position;
        if (zantrel::has_overlay(entry->data.kernel_id) &&
            o_set_overlay_position(o_get_fd(), entry->data.kernel_id, &entry->data) != 0) {
          // The table keeps the place the driver shows, so that the same
          // call made again moves the overlay.
          stored.position = former;
          return -1;
        }
      }
      zantrel::table::raise_version(table->version);
      return 0;
    });
  });
}

int overlay_get_buffer(int handle, int32_t* offset) {
  if (offset == nullptr) {
    return -1;
  }
  return zantrel::api::api_call("overlay_get_buffer", [&] {
    int32_t found = -1;
    int rc = with_entry(handle, -1, [&](overlay_table*, overlay_table_entry* entry) {
      found = o_get_overlay_buffer(o_get_fd(), entry->data.kernel_id);
      return found < 0 ? -1 : 0;
    });
    if (rc == 0) {
      *offset = found;
    }
    return rc;
  });
}

int overlay_submit_buffer(int handle, int32_t offset, uint32_t param) {
  return zantrel::api::api_call("overlay_submit_buffer", [&] {
    return with_entry(handle, -1, [&](overlay_table*, overlay_table_entry* entry) {
      return o_submit_overlay_buffer(o_get_fd(), entry->data.kernel_id, offset, param) < 0 ? -1 : 0;
    });
  });
}

int overlay_find(const char* tag) {
  return zantrel::api::api_call("overlay_find", [&] {
    int kernel_id = o_get_overlay_by_tag(o_get_fd(), tag);
    if (kernel_id == 0) {
      return kBadHandle;
    }
    return with_locked_table([&](overlay_table* table) {
      return overlay_table_find_handle_by_kernel_id(table, kernel_id);
    });
  });
}

int overlay_add_globally(int handle) {
  return zantrel::api::api_call("overlay_add_globally", [&] {
    return with_locked_table(
        [&](overlay_table* table) { return overlay_table_add_overlay_globally(table, handle); });
  });
}

int overlay_remove_globally(int handle) {
  return zantrel::api::api_call("overlay_remove_globally", [&] {
    return with_locked_table(
        [&](overlay_table* table) { return overlay_table_remove_overlay_globally(table, handle); });
  });
}

int overlay_add_to_channel(int handle, unsigned channel) {
  return zantrel::api::api_call("overlay_add_to_channel", [&] {
    return with_locked_table([&](overlay_table* table) {
      return overlay_table_add_overlay_to_channel(table, handle, channel);
    });
  });
}

int overlay_remove_from_channel(int handle, unsigned channel) {
  return zantrel::api::api_call("overlay_remove_from_channel", [&] {
    return with_locked_table([&](overlay_table* table) {
      return overlay_table_remove_overlay_from_channel(table, handle, channel);
    });
  });
}

// A stream number no stream table can name is refused before anything is
// mapped or made.
int overlay_add_to_stream(int handle, int /*unused*/, int stream) {
  if (!zantrel::table::valid_stream(stream)) {
    return kBadArgument;
  }
  return zantrel::api::api_call("overlay_add_to_stream", [&] {
    return with_locked_table([&](overlay_table* table) {
      return overlay_table_add_overlay_to_stream(table, handle, stream);
    });
  });
}

int overlay_remove_from_stream(int handle, int /*unused*/, int stream) {
  if (!zantrel::table::valid_stream(stream)) {
    return kBadArgument;
  }
  return zantrel::api::api_call("overlay_remove_from_stream", [&] {
    return with_locked_table([&](overlay_table* table) {
      return overlay_table_remove_overlay_from_stream(table, handle, stream);
    });
  });
}

int overlay_clear_stream(int /*unused*/, int stream) {
  if (!zantrel::table::valid_stream(stream)) {
    return kBadArgument;
  }
  return zantrel::api::api_call("overlay_clear_stream",
                                [&] { return overlay_table_remove_stream(stream); });
}

int overlay_add_to_source(int fd, int handle) {
  return zantrel::api::api_call("overlay_add_to_source", [&] {
    return with_entry(handle, kBadHandle, [&](overlay_table* table, overlay_table_entry* entry) {
      if (entry->data.type == OVERLAY_TYPE_SCALABLE_IMAGE) {
        log_message(LOG_ERR,
                    "libzantrel: Unable to add scalable image overlay as source overlay (handle: "
                    "%d)\n",
                    handle);
        return kBadArgument;
      }
      if (entry->data.type == OVERLAY_TYPE_MODIFIABLE_TEXT) {
        log_message(LOG_WARNING,
                    "libzantrel: Adding unsupported modifiable text overlay as source overlay "
                    "(handle:%d)\n",
                    handle);
      }
      // The driver is told first; a refusal by the table does not undo it.
      int rc = o_add_source_overlay(fd, entry->data.kernel_id);
      return rc < 0 ? rc : overlay_table_add_overlay_to_source(table, handle);
    });
  });
}

int overlay_remove_from_source(int fd, int handle) {
  return zantrel::api::api_call("overlay_remove_from_source", [&] {
    return with_entry(handle, kBadHandle, [&](overlay_table* table, overlay_table_entry* entry) {
      o_remove_source_overlay(fd, entry->data.kernel_id);
      return overlay_table_remove_overlay_from_source(table, handle);
    });
  });
}

int overlay_palette_set_color(const overlay_palette_color* color, unsigned index) {
  if (index >= OVERLAY_PALETTE_SIZE) {
    log_message(LOG_ERR, "libzantrel: Can't set palette color, invalid index (was %d)\n",
                static_cast<int>(index));
    return -1;
  }
  if (color == nullptr) {
    return kBadArgument;
  }
  uint32_t argb = static_cast<uint32_t>(color->alpha) << 24 |
                  static_cast<uint32_t>(color->red) << 16 |
                  static_cast<uint32_t>(color->green) << 8 | color->blue;
  return zantrel::api::api_call("overlay_palette_set_color", [&] {
    return with_locked_table([&](overlay_table* table) {
      int rc = palette_set_color_argb(o_get_fd(), argb, static_cast<int>(index),
                                      color->flag != 0 ? 1 : 0);
      if (rc == 0) {
        overlay_table_set_palette_color(table, color, index);
      }
      return rc;
    });
  });
}

int overlay_palette_get_all_colors(overlay_palette_color** colors, int32_t* count) {
  if (count != nullptr) {
    *count = OVERLAY_PALETTE_SIZE;
  }
  if (colors == nullptr) {
    return -1;
  }
  *colors = nullptr;
  return zantrel::api::api_call("overlay_palette_get_all_colors", [&] {
    auto* block = static_cast<overlay_palette_color*>(
        std::malloc(sizeof(overlay_palette_color) * OVERLAY_PALETTE_SIZE));
    if (block == nullptr) {
      log_message(LOG_ERR, "libzantrel: Malloc failed, internal error: %s\n",
                  zantrel::error_text(errno));
      return -1;
    }
    int rc = with_locked_table(
        [&](overlay_table* table) { return overlay_table_palette_get_all_colors(table, block); });
    if (rc != 0) {
      std::free(block);
      return -1;
    }
    *colors = block;
    return 0;
  });
}

int utils_compare_overlay_position(const overlay_position* a, const overlay_position* b) {
  if (a == nullptr || b == nullptr) {
    return a == b ? 0 : 1;
  }
  // Float equality on purpose: a NaN equals nothing, so it always differs.
  bool same = a->x == b->x && a->y == b->y && a->coord_type == b->coord_type &&
              a->visible_width == b->visible_width && a->visible_height == b->visible_height;
  return same ? 0 : 1;
}

}  // extern "C"
