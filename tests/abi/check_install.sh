#!/usr/bin/env bash
# The library as a firmware build takes it: "cmake --install --component
# library" into a staging directory gives libzantrel.so with its soname links,
# zantrel.h and zantrel.pc; the C program header_c99.c then builds against the
# staged tree through pkg-config alone, and runs.
#
# check_install.sh BUILD_DIR C_COMPILER SYSROOT_OR_EMPTY SANITIZE_OR_EMPTY
#                  STANDIN_LIBRARY_DIR... -- [EMULATOR...]
set -euo pipefail
export LC_ALL=C
here="$(cd "$(dirname "$0")" && pwd)"
build=$1 cc=$2 sysroot=$3 sanitize=$4
shift 4
standins=()
while (($# > 0)) && [[ $1 != -- ]]; do
  standins+=("$1")
  shift
done
shift || true

# Under the build directory, which an emulated machine running the program
# shares with this one.
stage="$(mktemp -d -p "$build" staged-install.XXXXXX)"
trap 'rm -rf "$stage"' EXIT
fail() {
  echo "check_install: $*" >&2
  exit 1
}

DESTDIR="$stage" cmake --install "$build" --prefix /usr --component library > /dev/null
library="$(find "$stage" -name libzantrel.so -print -quit)"
[[ -n $library ]] || fail "no libzantrel.so in the staged tree"
libdir="$(dirname "$library")"
[[ -f $stage/usr/include/zantrel.h ]] || fail "no /usr/include/zantrel.h in the staged tree"
[[ -f $libdir/pkgconfig/zantrel.pc ]] || fail "no zantrel.pc beside the library"
[[ $(readlink "$libdir/libzantrel.so") == libzantrel.so.0 ]] || fail "libzantrel.so does not link to libzantrel.so.0"
real="$(readlink "$libdir/libzantrel.so.0")"
[[ $real == libzantrel.so.0.* && -f $libdir/$real ]] || fail "libzantrel.so.0 does not link to the library file"
readelf -d "$libdir/$real" | grep -q 'SONAME.*\[libzantrel\.so\.0\]' || fail "the library's soname is not libzantrel.so.0"
unexpected="$(find "$stage" -type f ! -name 'libzantrel.so.0.*' ! -name zantrel.h ! -name zantrel.pc)"
[[ -z $unexpected ]] || fail "the library component installs more than the library: $unexpected"
grep -qx 'prefix=/usr' "$libdir/pkgconfig/zantrel.pc" || fail "zantrel.pc does not name the prefix /usr"

# An encoder of one's own expands texts as the camera's does: the stand-ins
# bring the documented tokenfill.h with their library and tokenfill.pc.
standin_stage="$stage/standins"
DESTDIR="$standin_stage" cmake --install "$build" --prefix /usr --component standins > /dev/null
[[ -f $standin_stage/usr/include/tokenfill.h ]] || fail "no /usr/include/tokenfill.h from the stand-ins"
[[ -n $(find "$standin_stage" -name tokenfill.pc) ]] || fail "no tokenfill.pc from the stand-ins"
grep -q '^TOKENFILL_API tokenfill_context\* tokenfill_init' "$standin_stage/usr/include/tokenfill.h" ||
  fail "the installed tokenfill.h does not declare tokenfill_init"
rm -rf "$standin_stage"

# As a cross build does it: the staged tree is pkg-config's sysroot.
export PKG_CONFIG_SYSROOT_DIR="$stage" PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
read -r -a flags <<< "$(pkg-config --cflags --libs zantrel)"
compile=("$cc" -std=c99 -pedantic -Werror -o "$stage/program" "$here/header_c99.c" "${flags[@]}")
[[ -z $sysroot ]] || compile+=(--sysroot="$sysroot")
[[ -z $sanitize ]] || compile+=(-fsanitize="$sanitize")
for dir in "${standins[@]}"; do
  compile+=(-Wl,-rpath-link,"$dir")
done
"${compile[@]}"
LD_LIBRARY_PATH="$libdir$(printf ':%s' "${standins[@]}")" "$@" "$stage/program"
