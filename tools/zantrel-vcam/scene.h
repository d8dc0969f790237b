// The application process: a realistic scene of overlays, one change part
// way through the video, and a clean teardown.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace vcam {

struct SceneConfig {
  std::vector<StreamSize> streams;
  std::string work_dir;  // private scratch directory: the ".ovl" logo, the bitmap directory
  std::string logo_png;  // the checked-in logo
  std::string ovlconv;   // a path, or a bare name looked up in PATH
};

// Messages on the link between the application and the encoder.
inline constexpr char kSceneReady = 'R';  // application: scene built
inline constexpr char kChangeNow = 'C';   // encoder: change the scene; application: changed

// overlay_attach(0), builds the scene and sends kSceneReady on link_fd; on
// each kChangeNow changes the scene and answers kChangeNow. When the encoder
// closes the link, or on a stop signal, destroys every overlay it made and
// detaches. 0, or 1 after a failure (reported on stderr), or 3 when stopped.
int run_application(const SceneConfig& config, int link_fd);

}  // namespace vcam
