#!/usr/bin/env bash
# Sets everything up and runs every test: the format check, clang-tidy
# (scripts/lint.sh), then a build with
# warnings as errors and the whole test suite, plain (dev), under
# AddressSanitizer with UndefinedBehaviorSanitizer (asan), and cross-built for
# the camera's 32-bit ARM and run under qemu-arm (armhf).
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
  fi
  cmake --preset "$preset"
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
