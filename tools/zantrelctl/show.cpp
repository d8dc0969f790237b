#include "commands.h"

#include <glob.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "options.h"
#include "zantrel.h"

namespace zantrelctl {
namespace {

int usage() {
  std::fputs("usage: zantrelctl show [--json]\n", stderr);
  return 2;
}

// A consistent copy of the shared state, taken under the table lock, and its
// two renderings: for a person and, as JSON, for a program.
struct StreamSnapshot {
  int stream;
  overlay_stream_table table;
};

struct Snapshot {
  std::unique_ptr<overlay_table> table;
  std::vector<StreamSnapshot> streams;  // by stream number
};

const char* type_name(int32_t type) {
  switch (type) {
    case OVERLAY_TYPE_PLAIN:
      return "plain";
    case OVERLAY_TYPE_TEXT:
      return "text";
    case OVERLAY_TYPE_MODIFIABLE_TEXT:
      return "modifiable text";
    case OVERLAY_TYPE_IMAGE:
      return "image";
    case OVERLAY_TYPE_SCALABLE_IMAGE:
      return "scalable image";
    default:
      return "unknown";
  }
}

// Handles of the members of a set; empty places are left out.
std::vector<int> members(const int8_t* set, int places) {
  std::vector<int> handles;
  for (int i = 0; i < places; ++i) {
    if (set[i] >= 0) {
      handles.push_back(set[i] + 1);
    }
  }
  return handles;
}

std::string join(const std::vector<int>& handles) {
  if (handles.empty()) {
    return "-";
  }
  std::string text;
  for (int handle : handles) {
    if (!text.empty()) {
      text += ' ';
    }
    text += std::to_string(handle);
  }
  return text;
}

uint32_t argb_of(const overlay_palette_color& color) {
  return static_cast<uint32_t>(color.alpha) << 24 | static_cast<uint32_t>(color.red) << 16 |
         static_cast<uint32_t>(color.green) << 8 | color.blue;
}

std::string hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

std::vector<StreamSnapshot> read_streams() {
  std::vector<StreamSnapshot> streams;
  glob_t found{};
  if (glob("/dev/shm/ovl_strm_*", 0, nullptr, &found) == 0) {
    for (std::size_t i = 0; i < found.gl_pathc; ++i) {
      int stream = 0;
      char rest = 0;
      if (std::sscanf(found.gl_pathv[i], "/dev/shm/ovl_strm_%d%c", &stream, &rest) != 1) {
        continue;
      }
      overlay_stream_table* mapped = overlay_table_map_stream(stream);
      if (mapped == MAP_FAILED) {
        continue;
      }
      streams.push_back({stream, *mapped});
      overlay_table_unmap_stream(mapped);
    }
  }
  globfree(&found);
  std::sort(streams.begin(), streams.end(),
            [](const StreamSnapshot& a, const StreamSnapshot& b) { return a.stream < b.stream; });
  return streams;
}

std::optional<Snapshot> take_snapshot() {
  overlay_table* mapped = overlay_table_map();
  if (mapped == MAP_FAILED) {
    return std::nullopt;
  }
  Snapshot snapshot{std::make_unique<overlay_table>(), {}};
  bool locked = overlay_table_lock(mapped) == 0;
  if (locked) {
    // Stream sets change only under the main table's lock too.
    std::memcpy(snapshot.table.get(), mapped, offsetof(overlay_table, table_mutex));
    snapshot.streams = read_streams();
    overlay_table_unlock(mapped);
  }
  overlay_table_unmap(mapped);
  if (!locked) {
    return std::nullopt;
  }
  return snapshot;
}

nlohmann::json to_json(const Snapshot& snapshot) {
  const overlay_table& table = *snapshot.table;
  nlohmann::json entries = nlohmann::json::array();
  for (int index = 0; index < OVERLAY_MAX_HANDLES; ++index) {
    const overlay_table_entry& entry = table.entries[index];
    if (entry.in_use == 0) {
      continue;
    }
    const overlay& ovl = entry.data.description.ovl;
    entries.push_back({{"handle", index + 1},
                       {"type", entry.data.type},
                       {"type_name", type_name(entry.data.type)},
                       {"kernel_id", entry.data.kernel_id},
                       {"width", entry.data.width},
                       {"height", entry.data.height},
                       {"priority", ovl.priority},
                       {"ignore_stream_filter", ovl.ignore_stream_filter},
                       {"legacy", ovl.legacy},
                       {"stream_count", entry.stream_count},
                       {"position",
                        {{"x", ovl.position.x},
                         {"y", ovl.position.y},
                         {"visible_width", ovl.position.visible_width},
                         {"visible_height", ovl.position.visible_height},
                         {"normalized", ovl.position.coord_type == OVERLAY_COORDS_NORMALIZED}}}});
  }
  nlohmann::json channels = nlohmann::json::object();
  for (int channel = 0; channel < OVERLAY_NBR_CHANNELS; ++channel) {
    channels[std::to_string(channel)] = members(table.channel_handles[channel], OVERLAY_SET_PLACES);
  }
  nlohmann::json streams = nlohmann::json::array();
  for (const StreamSnapshot& stream : snapshot.streams) {
    streams.push_back({{"stream", stream.stream},
                       {"version", stream.table.version},
                       {"active", stream.table.active},
                       {"handles", members(stream.table.handles, OVERLAY_SET_PLACES)}});
  }
  nlohmann::json palette = nlohmann::json::array();
  for (const overlay_palette_color& color : table.palette_copy) {
    palette.push_back({{"argb", hex(argb_of(color))}, {"flag", color.flag}});
  }
  return {{"version", table.version},
          {"entries", entries},
          {"global", members(table.global_handles, OVERLAY_SET_PLACES)},
          {"source", members(table.source_handles, OVERLAY_SET_PLACES)},
          {"channels", channels},
          {"streams", streams},
          {"palette", palette}};
}

std::string to_text(const Snapshot& snapshot) {
  const overlay_table& table = *snapshot.table;
  std::ostringstream out;
  out << "main table version " << table.version << "\n\nentries:\n";
  bool any = false;
  for (int index = 0; index < OVERLAY_MAX_HANDLES; ++index) {
    const overlay_table_entry& entry = table.entries[index];
    if (entry.in_use == 0) {
      continue;
    }
    any = true;
    const overlay& ovl = entry.data.description.ovl;
    const overlay_position& pos = ovl.position;
    out << "  handle " << index + 1 << ": " << type_name(entry.data.type) << ", kernel id "
        << entry.data.kernel_id << ", " << entry.data.width << "x" << entry.data.height
        << ", priority " << ovl.priority << ", ignore-stream-filter " << ovl.ignore_stream_filter
        << ", legacy " << ovl.legacy << ", position " << pos.x << "," << pos.y
        << (pos.coord_type == OVERLAY_COORDS_NORMALIZED ? " (normalized)" : " (pixels)")
        << ", visible " << pos.visible_width << "x" << pos.visible_height << "\n";
  }
  if (!any) {
    out << "  none\n";
  }
  out << "\nsets:\n  global: " << join(members(table.global_handles, OVERLAY_SET_PLACES)) << "\n";
  out << "  source: " << join(members(table.source_handles, OVERLAY_SET_PLACES)) << "\n";
  for (int channel = 0; channel < OVERLAY_NBR_CHANNELS; ++channel) {
    std::vector<int> handles = members(table.channel_handles[channel], OVERLAY_SET_PLACES);
    if (!handles.empty()) {
      out << "  channel " << channel << ": " << join(handles) << "\n";
    }
  }
  out << "\nstreams:\n";
  if (snapshot.streams.empty()) {
    out << "  none\n";
  }
  for (const StreamSnapshot& stream : snapshot.streams) {
    out << "  stream " << stream.stream << ": version " << stream.table.version
        << (stream.table.active == 1 ? "" : " (inactive)") << ", "
        << join(members(stream.table.handles, OVERLAY_SET_PLACES)) << "\n";
  }
  out << "\npalette:\n";
  for (int i = 0; i < OVERLAY_PALETTE_SIZE; ++i) {
    const overlay_palette_color& color = table.palette_copy[i];
    out << "  " << i << ": " << hex(argb_of(color)) << (color.flag != 0 ? " (flag)" : "") << "\n";
  }
  return out.str();
}

}  // namespace

int show_command(int argc, char** argv) {
  bool json = false;
  const std::array options{
      zantrel::tools::Option{"json", 0, false,
                             [&](const char*) -> std::optional<std::string> {
                               json = true;
                               return std::nullopt;
                             }},
  };
  const zantrel::tools::Parsed parsed = zantrel::tools::parse_options(argc, argv, options);
  if (!parsed || !parsed.operands.empty()) return usage();
  std::optional<Snapshot> snapshot = take_snapshot();
  if (!snapshot) {
    std::fputs(
        "zantrelctl: no overlay table: the overlay library is not initialised "
        "(/dev/shm/ovl_table)\n",
        stderr);
    return 1;
  }
  const std::string text = json ? to_json(*snapshot).dump(2) + "\n" : to_text(*snapshot);
  std::fputs(text.c_str(), stdout);
  return 0;
}

}  // namespace zantrelctl
