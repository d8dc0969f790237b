// The tools' one option parser, over glibc's getopt_long: "--name VALUE",
// "--name=VALUE", "-n VALUE" and flags, options and operands in any order,
// "--" ends the options. Settings narrow this for a tool whose command line
// was stricter before it came here.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zantrel::tools {

struct Option {
  const char* name;  // the long name, without "--"
  char short_name;   // its one-letter form, or 0
  bool takes_value;
  // Takes the value (nullptr for a flag). Returns an error message when the
  // value is wrong, nothing when it is taken.
  std::function<std::optional<std::string>(const char* value)> take;
};

struct Settings {
  // Long names only in full (getopt_long takes any unambiguous beginning),
  // a one-letter option only alone in its argument ("-h", not "-hh").
  bool exact = false;
  // Options only before the first operand; the rest are operands.
  bool options_first = false;
  // Whether "--" ends the options; if not, it is an unknown argument.
  bool double_dash = true;
  // getopt_long prints its own message (after argv[0]) for an unknown option
  // or a missing value; error then says no more than that there was one.
  bool getopt_messages = false;
};

struct Parsed {
  std::vector<const char*> operands;  // in their order
  std::string error;                  // empty when every argument was taken
  // With an error: the argument that is no option, for a tool that words
  // its own message; nullptr when a value is missing or was refused.
  const char* unknown = nullptr;
  bool refused = false;  // error is what an option's take returned
  explicit operator bool() const { return error.empty(); }
};

// Parses argv[1] to argv[argc - 1] (argv[0] names the program or command).
// Stops at the first error: "unknown argument 'ARG'", "--NAME needs a value",
// or what an option's take returned.
Parsed parse_options(int argc, char** argv, std::span<const Option> options,
                     const Settings& settings = {});

// Helpers for take: a whole number from low to high, written to out.
bool parse_long(const char* text, long low, long high, long& out);

}  // namespace zantrel::tools
