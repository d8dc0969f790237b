#include "options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace zantrel::tools {

namespace {

// The long options return their index, past every character a short option
// may use.
constexpr int kLongBase = 256;

// The argument that named the option getopt_long has just returned: the one
// before optind or, for a value given as the next argument, the one before
// that.
const char* option_argument(char** argv) {
  return optarg != nullptr && optarg == argv[optind - 1] ? argv[optind - 2] : argv[optind - 1];
}

// Whether a long option's argument ("--NAME" or "--NAME=VALUE") names it in
// full.
bool names_in_full(const char* argument, const char* name) {
  const std::string_view given = argument + 2;
  return given.substr(0, given.find('=')) == name;
}

// The argument holding the one-letter option just returned, given the
// argument before optind ahead of the call: optind passes an argument only
// once its last letter is read.
const char* letter_argument(char** argv, const char* previous) {
  const char* last = argv[optind - 1];
  const bool passed = last != previous && last[0] == '-' && last[1] != '\0';
  return passed ? last : argv[optind];
}

}  // namespace

Parsed parse_options(int argc, char** argv, std::span<const Option> options,
                     const Settings& settings) {
  std::vector<option> longs;
  std::string shorts = settings.options_first ? "+" : "";
  // ':' reports a missing value apart from an unknown option, and keeps
  // getopt_long quiet.
  if (!settings.getopt_messages) shorts += ':';
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
  const char* last_value = nullptr;
  opterr = settings.getopt_messages ? 1 : 0;
  optind = 0;  // 0, not 1: getopt_long starts over, as for a new command line
  for (;;) {
    const char* previous = optind > 0 ? argv[optind - 1] : nullptr;
    const int c = getopt_long(argc, argv, shorts.c_str(), longs.data(), nullptr);
    if (c == -1) break;
    const int which = c == ':' || c == '?' ? optopt : c;
    const Option* found = nullptr;
    if (which >= kLongBase) {
      found = &options[static_cast<size_t>(which - kLongBase)];
    } else if (c != '?') {
      for (const Option& o : options) {
        if (o.short_name == which) found = &o;
      }
    }
    // The argument in question, and whether it may stand.
    const char* argument = argv[optind - 1];
    bool written_right = true;
    if (settings.exact && which >= kLongBase) {
      argument = option_argument(argv);
      written_right = names_in_full(argument, found->name);
    } else if (settings.exact && which > 0) {
      argument = found != nullptr && found->takes_value ? option_argument(argv)
                                                        : letter_argument(argv, previous);
      written_right = argument[0] == '-' && argument[1] == which &&
                      (argument[2] == '\0' || (found != nullptr && found->takes_value));
    }
    if (!written_right || found == nullptr || c == '?') {
      parsed.error = "unknown argument '" + std::string(argument) + "'";
      parsed.unknown = argument;
    } else if (c == ':') {
      parsed.error = std::string(argument) + " needs a value";
    } else if (std::optional<std::string> refused = found->take(optarg)) {
      parsed.error = std::move(*refused);
      parsed.refused = true;
    }
    if (!parsed.error.empty()) return parsed;
    last_value = optarg;
  }
  // getopt_long leaves a "--" that ends the options just before optind.
  if (!settings.double_dash && optind > 1 && argv[optind - 1] != last_value &&
      std::strcmp(argv[optind - 1], "--") == 0) {
    parsed.error = "unknown argument '--'";
    parsed.unknown = argv[optind - 1];
    return parsed;
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
