// zantrelctl snapshot: what one stream shows now, composed by the simulated
// driver as a PNG.
#pragma once

namespace zantrelctl {

int snapshot_command(int argc, char** argv);

}  // namespace zantrelctl
