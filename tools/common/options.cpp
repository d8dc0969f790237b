#include "options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zantrel::tools {

Parsed parse_options(int argc, char** argv, std::span<const Option> options) {
  // The long options return their index, past every character a short
  // option may use.
  constexpr int kLongBase = 256;
  std::vector<option> longs;
  std::string shorts = ":";  // ':' reports a missing value apart from an unknown option
  for (size_t i = 0; i < options.size(); ++i) {
    const Option& o = options[i];
    longs.push_back({o.name, o.takes_value ? required_argument : no_argument, nullptr,
                     kLongBase + static_cast<int>(i)});
    if (o.short_name != 0) {
      shorts += o.short_name;
      if (o.takes_value) shorts += ':';
    }
  }
  longs.push_back({nullptr, 0, nullptr, 0});

  Parsed parsed;
  opterr = 0;
  optind = 0;  // 0, not 1: getopt_long starts over, as for a new command line
  for (int c; (c = getopt_long(argc, argv, shorts.c_str(), longs.data(), nullptr)) != -1;) {
    const Option* found = nullptr;
    if (c >= kLongBase) {
      found = &options[static_cast<size_t>(c - kLongBase)];
    } else if (c != '?' && c != ':') {
      for (const Option& o : options) {
        if (o.short_name == c) found = &o;
      }
    }
    if (c == ':') {
      parsed.error = std::string(argv[optind - 1]) + " needs a value";
    } else if (found == nullptr) {
      parsed.error = "unknown argument '" + std::string(argv[optind - 1]) + "'";
    } else if (std::optional<std::string> refused = found->take(optarg)) {
      parsed.error = std::move(*refused);
    }
    if (!parsed.error.empty()) return parsed;
  }
  for (int i = optind; i < argc; ++i) parsed.operands.push_back(argv[i]);
  return parsed;
}

bool parse_long(const char* text, long low, long high, long& out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  out = value;
  return true;
}

}  // namespace zantrel::tools
