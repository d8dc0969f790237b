#!/usr/bin/env bash
# Counts the instructions of every call of overlay_setup_in_encreq in the
# encoder scene (bench/encoder_scene.cpp) with callgrind, and summarises them
# per frame and per call. Instruction counts do not depend on the machine's
# load, so two runs of one build give the same figures.
#
#   bench/encoder-instructions.sh [BUILD_DIR] [MODE...] [-- --bound N]
#
# BUILD_DIR defaults to build/release; the modes to scene streams longtext quiet.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
shift || true
modes=()
while (($# > 0)) && [[ $1 != -- ]]; do modes+=("$1"); shift; done
[[ ${1:-} == -- ]] && shift
((${#modes[@]} > 0)) || modes=(scene streams longtext quiet)
program=$build/bench/encoder_scene
[[ -x $program ]] || { echo "encoder-instructions: build $program first" >&2; exit 1; }
command -v valgrind >/dev/null || { echo "encoder-instructions: valgrind is missing" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for mode in "${modes[@]}"; do
  rm -f "$work"/cg.*
  valgrind --tool=callgrind --collect-atstart=yes --dump-instr=no --dump-line=no \
    --callgrind-out-file="$work/cg.%p" --log-file="$work/valgrind.log" \
    "$program" "$mode" "$@" >/dev/null
  # One line a call: frame, stream, request version, instructions.
  for dump in "$work"/cg.*.*; do
    awk '/^desc: Trigger: Client Request: frame/ { f = $6; s = $8; v = $9 }
         /^(summary|totals):/ { n = $2 }
         END { if (f != "") print f, s, v, n }' "$dump"
  done | sort -n -k1,1 -k2,2 > "$work/calls"
  # Gathering frames: a stream's request took a new version (frame 0 aside).
  awk '{ if (NR > 1 && $2 in v && v[$2] != $3) g[$1] = 1; v[$2] = $3; f[$1] += $4 }
       END { for (k in g) print f[k] }' "$work/calls" | sort -n > "$work/gathering"
  awk '{ if (!($2 in v) || v[$2] == $3) print $4; v[$2] = $3 }' "$work/calls" | sort -n > "$work/quiet"
  median() { awk '{ v[NR] = $1 } END { print (NR ? v[int((NR + 1) / 2)] : 0) }' "$1"; }
  awk -v mode="$mode" -v gathering="$(median "$work/gathering")" \
      -v gatherings="$(wc -l < "$work/gathering")" -v quiet="$(median "$work/quiet")" '
    { frame[$1] += $4; total += $4
      if ($4 > worst_call) { worst_call = $4; worst_call_at = $1 "/" $2 } }
    END {
      frames = 0
      for (f in frame) {
        frames++
        if (frame[f] > worst) { worst = frame[f]; worst_at = f }
        if (f > 0 && frame[f] > later) { later = frame[f]; later_at = f }
      }
      printf "%s: %d frames, %d calls, %.1fM in all\n", mode, frames, NR, total / 1e6
      printf "  first frame %.2fM; worst frame %.2fM (frame %s); worst after the first %.2fM (frame %s)\n",
        frame[0] / 1e6, worst / 1e6, worst_at, later / 1e6, later_at
      printf "  worst call %.2fM (frame/stream %s); median gathering frame %.2fM of %d; median quiet call %.2fk\n",
        worst_call / 1e6, worst_call_at, gathering / 1e6, gatherings, quiet / 1e3
    }' "$work/calls"
  # The calls of every gathering frame, stream by stream.
  awk '{ if (NR > 1 && $2 in v && v[$2] != $3) g[$1] = 1; v[$2] = $3; c[$1] = c[$1] " " int($4 / 1000) "k" }
       END { for (k in g) print "  frame " k ":" c[k] }' "$work/calls" | sort -n -k2 | head -12
  cp "$work/calls" "/tmp/encoder-instructions-$mode.txt"
done
