#!/usr/bin/env bash
# Runs a program built for armhf on this machine: armhf-run.sh SYSROOT PROGRAM
# [ARGS...]. While scripts/armhf-machine.sh has an emulated ARM machine up
# (ZANTREL_ARMHF_MACHINE set), the program runs there, on an ARM kernel,
# through armhf-machine-run.sh beside this file. Otherwise it runs here under
# user-mode emulation, quicker to start but without a kernel of its own (no
# robust futex lists, for one): qemu-arm runs it with the sysroot's libraries
# (QEMU_LD_PREFIX, inherited by everything it starts), and the ARM programs it
# starts in turn (camsim-run, the tools, zantrel-vcam) run under qemu-arm too,
# through the kernel's binfmt_misc:
# - when the machine has qemu-arm registered already, that registration;
# - otherwise a private one: a user and mount namespace with its own
#   binfmt_misc instance (Linux 6.7 or later), which the machine never sees.
set -euo pipefail
if (($# < 2)); then
  echo "usage: armhf-run.sh SYSROOT PROGRAM [ARGS...]" >&2
  exit 2
fi
sysroot=$1
shift
if [[ -n ${ZANTREL_ARMHF_MACHINE-} ]]; then
  exec "$(dirname "$0")/armhf-machine-run.sh" "$@"
fi
qemu="$(command -v qemu-arm-static || command -v qemu-arm || true)"
if [[ -z $qemu ]]; then
  echo "armhf-run: qemu-arm-static is missing (scripts/setup.sh installs it)" >&2
  exit 2
fi
export QEMU_LD_PREFIX="$sysroot"

binfmt=/proc/sys/fs/binfmt_misc
# The ELF header of a 32-bit little-endian ARM executable, and what to compare.
arm_magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
arm_mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

arm_registered() {
  local entry
  for entry in "$binfmt"/*; do
    [[ -f $entry && $(basename "$entry") != register && $(basename "$entry") != status ]] || continue
    if head -n 1 "$entry" | grep -qx enabled && grep -q '^magic 7f454c4601010100000000000000000002002800' "$entry"; then
      return 0
    fi
  done
  return 1
}

if [[ ${1-} == --private-binfmt ]]; then
  shift
  if ! mount -t binfmt_misc binfmt_misc "$binfmt" 2> /dev/null; then
    echo "armhf-run: this kernel has no binfmt_misc for user namespaces (Linux 6.7 or later);" \
      "register qemu-arm on the machine instead (apt-get install binfmt-support qemu-user-static)" >&2
    exit 2
  fi
  # F: the kernel opens the interpreter now, so it is found in any namespace.
  printf ":qemu-arm:M::%s:%s:%s:F" "$arm_magic" "$arm_mask" "$qemu" > "$binfmt/register"
  exec "$qemu" "$@"
fi

if arm_registered; then
  exec "$qemu" "$@"
fi
exec unshare --user --map-root-user --mount -- "$0" "$sysroot" --private-binfmt "$@"
