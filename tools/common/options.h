// The tools' one option parser, over glibc's getopt_long: "--name VALUE",
// "--name=VALUE", "-n VALUE" and flags, options and operands in any order,
// "--" ends the options.
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

struct Parsed {
  std::vector<const char*> operands;  // in their order
  std::string error;                  // empty when every argument was taken
  explicit operator bool() const { return error.empty(); }
};

// Parses argv[1] to argv[argc - 1] (argv[0] names the program or command).
// Stops at the first error: "unknown argument 'ARG'", "--NAME needs a value",
// or what an option's take returned.
Parsed parse_options(int argc, char** argv, std::span<const Option> options);

// Helpers for take: a whole number from low to high, written to out.
bool parse_long(const char* text, long low, long high, long& out);

}  // namespace zantrel::tools
