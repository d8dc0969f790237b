// A consistent copy of the shared state, taken under the table lock, and its
// two renderings: for a person and, as JSON, for a program.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zantrel.h"

namespace zantrelctl {

struct StreamSnapshot {
  int stream;
  overlay_stream_table table;
};

struct Snapshot {
  std::unique_ptr<overlay_table> table;
  std::vector<StreamSnapshot> streams;  // by stream number
};

// Empty when there is no main table (or it cannot be mapped or locked).
std::optional<Snapshot> take_snapshot();

nlohmann::json to_json(const Snapshot& snapshot);
std::string to_text(const Snapshot& snapshot);

}  // namespace zantrelctl
