#!/usr/bin/env bash
# Fails when a C or C++ file of the project is not formatted by .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -co --exclude-standard '*.c' '*.h' '*.cpp' | xargs -r clang-format --dry-run -Werror
