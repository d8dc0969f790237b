#!/usr/bin/env bash
# Sets everything up and runs every test: the format check, then a build with
# warnings as errors and the whole test suite, plain and under AddressSanitizer
# with UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
scripts/check-format.sh

for preset in ${ZANTREL_TEST_PRESETS:-dev asan}; do
  echo "== $preset"
  cmake --preset "$preset"
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
