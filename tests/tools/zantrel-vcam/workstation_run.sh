#!/usr/bin/env bash
# The workstation build's default run of the virtual camera, whose pictures
# the cross build's default run must match byte for byte:
# workstation_run.sh ZANTREL_VCAM OUT_DIR. It runs in a private /dev/shm, so
# the machine's own tables are never touched.
set -euo pipefail
vcam=$1 out=$2
if [[ ! -x $vcam ]]; then
  echo "workstation_run: no workstation build of zantrel-vcam at $vcam" \
    "(cmake --preset dev && cmake --build --preset dev --target zantrel-vcam)" >&2
  exit 1
fi
rm -rf "$out"
mkdir -p "$out"
exec unshare --user --map-root-user --mount -- sh -c \
  'mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$0" --out "$1" > "$1/stdout.txt"' "$vcam" "$out"
