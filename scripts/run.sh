#!/usr/bin/env bash
# The project's main job: sets everything up and runs the virtual camera (an
# owner, an application and an encoder process on the simulated driver) with
# its defaults, writing its pictures into ./out/. Arguments go to the camera,
# e.g. scripts/run.sh --seconds 20 --out /tmp/vcam
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

"$root/scripts/setup.sh"
(cd "$root" && cmake --preset release > /dev/null &&
  cmake --build --preset release --target zantrel-vcam ovlconv camsim)
exec "$root/build/release/tools/zantrel-vcam/zantrel-vcam" "$@"
