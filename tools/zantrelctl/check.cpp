#include "commands.h"

#include <sys/mman.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "options.h"
#include "zantrel-internal/table_check.h"

namespace zantrelctl {
namespace {

using zantrel::table::Fault;
using zantrel::table::Finding;
using zantrel::table::Place;

constexpr int kSound = 0;
constexpr int kUnsound = 1;
constexpr int kUsage = 2;
constexpr int kNoTables = 3;

int usage(const char* problem) {
  std::fprintf(stderr,
               "zantrelctl check: %s\n"
               "usage: zantrelctl check [--json] [--repair]\n"
               "  exit status: 0 the tables are sound, 1 problems were found (with --repair:\n"
               "  found and mended), 2 wrong usage, 3 no tables to check\n",
               problem);
  return kUsage;
}

std::string place_name(const Finding& f) {
  switch (f.where) {
    case Place::kSource:
      return "source set";
    case Place::kGlobal:
      return "global set";
    case Place::kChannel:
      return "channel " + std::to_string(f.number) + " set";
    case Place::kStream:
      return "stream " + std::to_string(f.number) + " table";
    case Place::kEntry:
      break;
  }
  return "overlay " + std::to_string(f.handle);
}

// The problem in words a field engineer reads, and what a repair does.
std::string describe(const Finding& f) {
  const std::string where = place_name(f);
  const std::string at = f.place >= 0 ? ", place " + std::to_string(f.place + 1) : "";
  const std::string overlay = "overlay " + std::to_string(f.handle);
  switch (f.fault) {
    case Fault::kBadEntry:
      return where + ": half written or half cleared (in use " + std::to_string(f.in_use) +
             ", type " + std::to_string(f.value) +
             (f.kernel_id != 0 ? ", hardware overlay " + std::to_string(f.kernel_id) : "") +
             "); repair frees it";
    case Fault::kBadSetValue:
      return where + at + ": holds the value " + std::to_string(f.value) +
             ", which names no overlay; repair empties the place";
    case Fault::kFreeMember:
      return where + at + ": lists " + overlay +
             ", which does not exist (a new overlay given that number would show here); "
             "repair takes it out";
    case Fault::kDuplicateMember:
      return where + at + ": lists " + overlay + " a second time; repair takes the copy out";
    case Fault::kMemberAfterGap:
      return where + at + ": " + overlay +
             " stands after an empty place; repair moves the members up";
    case Fault::kShortStreamTable:
      return where + ": only " + std::to_string(f.value) +
             " bytes long, not 16 (its creator died); nothing can be added to the stream until "
             "repair makes it an empty table";
    case Fault::kBadActive:
      return where + ": active flag is " + std::to_string(f.value) +
             " (0 or 1 expected); repair sets it to 1";
    case Fault::kInactiveMembers:
      return where + at + ": " +
             (f.handle > 0 ? "lists " + overlay : "holds " + std::to_string(f.value)) +
             " though nothing was ever added to the stream; repair empties the place";
    case Fault::kLowStreamCount:
      return where + ": counted on " + std::to_string(f.value) + " streams but listed on " +
             std::to_string(f.expected) +
             " (destroying it would leave it on a stream); repair corrects the count";
  }
  return where + ": unknown problem";
}

void collect(const Finding& finding, void* context) {
  static_cast<std::vector<Finding>*>(context)->push_back(finding);
}

}  // namespace

int check_command(int argc, char** argv) {
  bool json = false;
  bool repair = false;
  auto flag = [](bool& set) {
    return [&set](const char*) -> std::optional<std::string> {
      set = true;
      return std::nullopt;
    };
  };
  const std::array options{zantrel::tools::Option{"json", 0, false, flag(json)},
                           zantrel::tools::Option{"repair", 0, false, flag(repair)}};
  const zantrel::tools::Parsed parsed = zantrel::tools::parse_options(argc, argv, options);
  if (!parsed) return usage(parsed.error.c_str());
  if (!parsed.operands.empty()) {
    return usage(("unknown argument '" + std::string(parsed.operands.front()) + "'").c_str());
  }

  overlay_table* table = overlay_table_map();
  if (table == MAP_FAILED) {
    std::fputs(
        "zantrelctl check: no overlay table: the overlay library is not initialised "
        "(/dev/shm/ovl_table)\n",
        stderr);
    return kNoTables;
  }
  // Taking the lock from a dead holder already mends the tables; the
  // library logs that to the system log.
  const int locked = overlay_table_lock(table);
  if (locked != 0) {
    std::fprintf(stderr, "zantrelctl check: cannot lock the overlay table: %s\n",
                 std::strerror(locked));
    overlay_table_unmap(table);
    return kNoTables;
  }
  std::vector<Finding> findings;
  findings.reserve(64);
  zantrel::table::check_tables(table, repair, collect, &findings);
  if (repair && !findings.empty()) {
    zantrel::table::mark_mended(table);  // every encoder gathers again
  }
  overlay_table_unlock(table);
  overlay_table_unmap(table);

  if (json) {
    nlohmann::json problems = nlohmann::json::array();
    for (const Finding& f : findings) {
      nlohmann::json item{{"kind", zantrel::table::names_of(f.fault).name},
                          {"where", place_name(f)},
                          {"message", describe(f)}};
      if (f.handle > 0) item["handle"] = f.handle;
      if (f.place >= 0) item["place"] = f.place + 1;
      problems.push_back(item);
    }
    nlohmann::json out{{"sound", findings.empty()},
                       {"repaired", repair && !findings.empty()},
                       {"problems", problems}};
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    for (const Finding& f : findings) std::printf("%s\n", describe(f).c_str());
    if (findings.empty()) {
      std::puts("The overlay tables are sound.");
    } else {
      std::printf("%zu problem%s found%s.\n", findings.size(), findings.size() == 1 ? "" : "s",
                  repair ? " and mended" : "; run 'zantrelctl check --repair' to mend them");
    }
  }
  return findings.empty() ? kSound : kUnsound;
}

}  // namespace zantrelctl
