#!/usr/bin/env bash
# The library exports exactly the names of its public interface: compares the
# dynamic symbol table of the built library with the list beside this script.
set -eu
export LC_ALL=C
library=$1
expected=$2
actual=$(nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort)
if ! diff_out=$(printf '%s\n' "$actual" | diff -u <(sort "$expected") -); then
  echo "exported symbols differ from $expected (- missing, + unexpected):"
  printf '%s\n' "$diff_out"
  exit 1
fi
echo "$(printf '%s\n' "$actual" | wc -l) symbols exported, as listed"
