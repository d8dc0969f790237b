// zantrelctl: looks at the overlay library's shared state.
//   zantrelctl show [--json]
//   zantrelctl check [--json] [--repair]
//   zantrelctl render-text [options] -o OUT.png TEXT
//   zantrelctl snapshot --stream N --size WxH -o OUT.png
#include <cstdio>
#include <cstring>
#include <string>

#include "check.h"
#include "render_preview.h"
#include "snapshot.h"
#include "stream_picture.h"

namespace {

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
  if (argc >= 2 && std::strcmp(argv[1], "snapshot") == 0) {
    return zantrelctl::snapshot_command(argc - 1, argv + 1);
  }
  if (argc >= 2 && std::strcmp(argv[1], "render-text") == 0) {
    return zantrelctl::render_text_command(argc - 1, argv + 1);
  }
  if (argc >= 2 && std::strcmp(argv[1], "check") == 0) {
    return zantrelctl::check_command(argc - 1, argv + 1);
  }
  if (argc < 2 || std::strcmp(argv[1], "show") != 0 || argc > 3) {
    return usage();
  }
  bool json = argc == 3 && std::strcmp(argv[2], "--json") == 0;
  if (argc == 3 && !json) {
    return usage();
  }
  std::optional<zantrelctl::Snapshot> snapshot = zantrelctl::take_snapshot();
  if (!snapshot) {
    std::fputs(
        "zantrelctl: no overlay table: the overlay library is not initialised "
        "(/dev/shm/ovl_table)\n",
        stderr);
    return 1;
  }
  std::string text =
      json ? zantrelctl::to_json(*snapshot).dump(2) + "\n" : zantrelctl::to_text(*snapshot);
  std::fputs(text.c_str(), stdout);
  return 0;
}
