#!/usr/bin/env bash
# The mutation check: makes each slip of tests/mutation/slips.tsv, one at a
# time, in a scratch copy of the tree, rebuilds it (dev preset, incremental),
# runs the tests the slip names and, when they all pass, the whole suite; then
# puts the file back. Prints each slip's fate and the kill rate. A slip that
# the suite lets through is a fault a user could meet.
#
#   scripts/mutation-check.sh [-l LIST] [PATTERN]
#
# PATTERN (a grep -E regex) chooses the slips whose line matches it, e.g.
# "src/table" or "gridfit". The scratch copy lives in
# ${ZANTREL_MUTATION_DIR:-/tmp/zantrel-mutation-$USER}; it is kept between
# runs, brought up to date with the working tree (tracked and new files) and
# built once, so that each slip rebuilds only what it touches.
#
# Fates: "caught by T" (a named test T failed), "caught by the suite: T" (a
# test not named failed: name it in the list), "SURVIVED", "no longer applies"
# (the text is not found exactly once: the code moved, re-anchor the slip),
# "does not build" (the compiler caught it: pick a slip that builds). Only
# the first two count as caught; the rate is over the slips that applied and
# built. Exit status 0 when every such slip was caught.
set -uo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
list=tests/mutation/slips.tsv
if [[ ${1:-} == -l ]]; then
  list=$2
  shift 2
fi
pattern=${1:-.}
scratch=${ZANTREL_MUTATION_DIR:-/tmp/zantrel-mutation-${USER:-$(id -un)}}
build=$scratch/build/dev
log=$scratch/mutation.log
start=$SECONDS

# Brings the scratch copy up to date, copying only files that differ (a
# fresh time stamp, so that ninja rebuilds what depends on them).
mkdir -p "$scratch"
git ls-files -co --exclude-standard -z | while IFS= read -r -d '' file; do
  [[ -f $file ]] || continue
  if ! cmp -s "$file" "$scratch/$file"; then
    mkdir -p "$scratch/$(dirname "$file")"
    cp "$file" "$scratch/$file"
  fi
done
cd "$scratch" || exit 2
if [[ ! -f $build/build.ninja ]]; then
  nice cmake --preset dev >"$log" 2>&1 || { echo "configure failed: see $log"; exit 2; }
fi
echo "== building the unchanged tree in $scratch"
if ! nice ninja -C "$build" >"$log" 2>&1; then
  echo "the unchanged tree does not build: see $log"
  exit 2
fi

# The names of the tests that failed, from ctest's summary: the first three.
failed_tests() {
  sed -nE 's/^[[:space:]]*[0-9]+ - ([^ ]+).* \([A-Za-z ]+\)$/\1/p' "$1" |
    awk 'NR <= 3 { printf "%s%s", (NR > 1 ? " " : ""), $0 } END { if (NR > 3) printf " and %d more", NR - 3 }'
}

# Replaces the one occurrence of $2 in file $1 by $3; status 3 when the text
# is not found exactly once.
apply_slip() {
  python3 - "$@" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
try:
    text = open(path, encoding="utf-8").read()
except OSError:
    sys.exit(3)
if text.count(old) != 1:
    sys.exit(3)
open(path, "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

total=0 applied=0 caught=0 survived=0 stale=0 broken=0
survivors=()
while IFS=$'\t' read -r subsystem file old new tests; do
  [[ -z $subsystem || $subsystem == \#* ]] && continue
  printf '%s\t%s\t%s\t%s\t%s\n' "$subsystem" "$file" "$old" "$new" "$tests" | grep -qE -- "$pattern" || continue
  total=$((total + 1))
  label="[$subsystem] $file: '$old' -> '$new'"
  t0=$SECONDS
  cp -p "$file" "$log.orig" 2>/dev/null
  if ! apply_slip "$file" "$old" "$new"; then
    echo "no longer applies  $label"
    stale=$((stale + 1))
    continue
  fi
  fate=""
  if ! nice ninja -C "$build" >"$log" 2>&1; then
    fate="does not build"
    broken=$((broken + 1))
  else
    applied=$((applied + 1))
    if ! nice ctest --test-dir "$build" -R "$tests" -j2 --timeout 120 --no-tests=error >"$log" 2>&1; then
      fate="caught by $(failed_tests "$log")"
      # No test of that name: a fault of the list, never a catch.
      grep -q "No tests were found" "$log" && fate="SURVIVED (no test matches '$tests')"
    elif ! nice ctest --test-dir "$build" -j2 --timeout 120 >"$log" 2>&1; then
      fate="caught by the suite: $(failed_tests "$log")"
    else
      fate="SURVIVED"
    fi
    if [[ $fate == SURVIVED* ]]; then
      survived=$((survived + 1))
      survivors+=("$label")
    else
      caught=$((caught + 1))
    fi
  fi
  # Back as it was, with a new time stamp so that the next build takes it.
  cp "$log.orig" "$file"
  touch "$file"
  echo "$fate ($((SECONDS - t0)) s)  $label"
done <"$repo/$list"

# The last slip's objects are rebuilt from the restored tree.
nice ninja -C "$build" >"$log" 2>&1 || echo "the restored tree does not build: see $log"

echo "== $total slips: $caught caught, $survived survived, $stale no longer apply, $broken do not build"
if ((applied > 0)); then
  echo "== kill rate $caught/$applied ($((100 * caught / applied))%) in $((SECONDS - start)) s"
fi
for s in "${survivors[@]}"; do echo "survived: $s"; done
((survived == 0))
