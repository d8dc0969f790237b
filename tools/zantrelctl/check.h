// zantrelctl check [--json] [--repair]: the soundness of the shared tables,
// read under the table lock, and their repair.
#pragma once

namespace zantrelctl {

// argv[0] is "check". Returns the exit status.
int check_command(int argc, char** argv);

}  // namespace zantrelctl
