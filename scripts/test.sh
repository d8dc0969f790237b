#!/usr/bin/env bash
# Sets everything up and runs every test: the format check, clang-tidy
# (scripts/lint.sh), then a build with
# warnings as errors and the whole test suite, plain (dev), under
# AddressSanitizer with UndefinedBehaviorSanitizer (asan), and cross-built for
# the camera's 32-bit ARM and run on an emulated ARM machine (armhf).
# ZANTREL_TEST_PRESETS chooses the stages, e.g. ZANTREL_TEST_PRESETS=armhf.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
scripts/check-format.sh
scripts/lint.sh

for preset in ${ZANTREL_TEST_PRESETS:-dev asan armhf}; do
  echo "== $preset"
  if [[ $preset == armhf ]]; then
    scripts/armhf-sysroot.sh
    # The workstation's zantrel-vcam, whose pictures the camera's must match.
    [[ -f build/dev/build.ninja ]] || cmake --preset dev
    cmake --build --preset dev --target zantrel-vcam
  fi
  cmake --preset "$preset"
  cmake --build --preset "$preset"
  if [[ $preset == armhf ]]; then
    # The suite runs on an emulated ARM machine with Debian's armhf kernel.
    scripts/armhf-machine.sh ctest --preset "$preset"
  else
    ctest --preset "$preset"
  fi
done
