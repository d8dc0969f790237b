// zantrelctl: looks at the overlay library's shared state.
//   zantrelctl show [--json]
//   zantrelctl check [--json] [--repair]
//   zantrelctl render-text [options] -o OUT.png TEXT
//   zantrelctl snapshot --stream N --size WxH -o OUT.png
#include <array>
#include <cstdio>
#include <string_view>

#include "commands.h"

namespace {

struct Command {
  std::string_view name;
  int (*run)(int argc, char** argv);
};

constexpr std::array kCommands{
    Command{"show", zantrelctl::show_command},
    Command{"check", zantrelctl::check_command},
    Command{"render-text", zantrelctl::render_text_command},
    Command{"snapshot", zantrelctl::snapshot_command},
};

int usage() {
  std::fputs(
      "usage: zantrelctl show [--json]\n"
      "       zantrelctl check [--json] [--repair]\n"
      "       zantrelctl render-text [options] -o OUT.png TEXT\n"
      "       zantrelctl snapshot --stream N --size WxH [--channel C] -o OUT.png\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2) {
    for (const Command& command : kCommands) {
      if (command.name == argv[1]) return command.run(argc - 1, argv + 1);
    }
  }
  return usage();
}
