// zantrelctl's commands, one file each, named after the command. Each takes
// its own arguments (argv[0] is the command's name) and returns the exit
// status.
#pragma once

namespace zantrelctl {

// show [--json]: the shared tables as they are now, for a person or a program.
int show_command(int argc, char** argv);
// check [--json] [--repair]: the soundness of the shared tables, read under the
// table lock, and their repair.
int check_command(int argc, char** argv);
// render-text: renders a text as an overlay would show it and writes the
// result, palette decoded, as a PNG.
int render_text_command(int argc, char** argv);
// snapshot: what one stream shows now, composed by the simulated driver as a
// PNG.
int snapshot_command(int argc, char** argv);

}  // namespace zantrelctl
