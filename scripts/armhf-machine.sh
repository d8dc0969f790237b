#!/usr/bin/env bash
# Runs a command with an emulated 32-bit ARM machine up, for the armhf build's
# programs to run on Debian's own armhf kernel:
#
#   scripts/armhf-machine.sh ctest --preset armhf
#
# The machine is qemu-system-arm's "virt" board (Cortex-A15, 2 processors,
# 1 GiB), booted from build/armhf-kernel (scripts/armhf-sysroot.sh fetches
# it) with a busybox initramfs made here. It shares directories of this
# machine over 9p at the same paths: the source tree (with the builds and the
# sysroot in it), the sysroot when it lies elsewhere, and the machine's fonts;
# the sysroot's libraries and fontconfig setup are linked into place, so the
# armhf programs run there as on a Debian armhf system.
#
# While the command runs, ZANTREL_ARMHF_MACHINE names the machine's spool
# directory: cmake/armhf-run.sh then runs every program in the machine
# (through cmake/armhf-machine-run.sh) instead of under qemu-arm. A guest that
# does not come up within ZANTREL_ARMHF_BOOT_SECONDS (default 180), or stops
# answering for ZANTREL_ARMHF_SILENCE_SECONDS (default 90), fails the command
# with a message and the end of its console. The exit status is the command's,
# or 1 when the machine failed.
set -euo pipefail
if (($# < 1)); then
  echo "usage: armhf-machine.sh COMMAND [ARGS...]" >&2
  exit 2
fi
root="$(cd "$(dirname "$0")/.." && pwd)"
kernel="$root/build/armhf-kernel"
sysroot="$(realpath "${ZANTREL_SYSROOT:-$root/build/armhf-sysroot}")"
boot_bound=${ZANTREL_ARMHF_BOOT_SECONDS:-180}
silence_bound=${ZANTREL_ARMHF_SILENCE_SECONDS:-90}
fonts=/usr/share/fonts

say() { echo "armhf-machine: $*" >&2; }
if [[ ! -f $kernel/.zantrel-kernel ]]; then
  say "no kernel in $kernel: run scripts/armhf-sysroot.sh"
  exit 1
fi
if [[ ! -d $sysroot/usr/lib/arm-linux-gnueabihf ]]; then
  say "no armhf sysroot at $sysroot: run scripts/armhf-sysroot.sh"
  exit 1
fi
for program in qemu-system-arm cpio; do
  if ! command -v "$program" > /dev/null; then
    say "$program is missing (scripts/setup.sh installs it)"
    exit 1
  fi
done

# One directory per run: the initramfs, the console log, and the spool
# through which programs are handed to the guest.
run="$root/build/armhf-machine/$$"
spool="$run/spool"
rm -rf "$run"
mkdir -p "$spool" "$run/initramfs"/{bin,etc,modules}

# Shared directories: 9p tag, path on both sides, the guest's cache mode.
# What the guest runs from is read through its page cache ("loose": nothing
# there changes while the machine is up, and a program starts in a second
# instead of several); the spool, written on both sides, is read uncached.
shares=("tree $root ${ZANTREL_9P_CACHE-loose}")
[[ $sysroot == "$root"/* ]] || shares+=("sysroot $sysroot loose")
[[ ! -d $fonts ]] || shares+=("fonts $fonts loose")
shares+=("spool $spool none")

initramfs="$run/initramfs"
cp "$kernel/busybox" "$initramfs/bin/busybox"
cp "$kernel"/modules/*.ko "$initramfs/modules/"
echo "root:x:0:0:root:/root:/bin/sh" > "$initramfs/etc/passwd"
echo "root:x:0:" > "$initramfs/etc/group"
{
  echo "modules='$(cat "$kernel/modules/order")'"
  echo "sysroot='$sysroot' spool='$spool'"
  printf "shares='%s'\n" "$(printf '%s\n' "${shares[@]}")"
} > "$initramfs/etc/machine.conf"
# The guest's first and only process: it mounts what the programs need, then
# takes jobs from the spool. A job is a shell script (cmake/armhf-machine-run.sh
# writes ID.job); it runs in a session of its own with its output appended to
# ID.out and ID.err, and its exit status goes to ID.rc; ID.kill ends the
# session's processes. "alive" is rewritten every second; "poweroff" ends it.
cat > "$initramfs/init" << 'EOF'
#!/bin/busybox sh
/bin/busybox mkdir -p /sbin /usr/bin /usr/sbin /proc /sys /dev /tmp /run/jobs /root /lib /usr/lib /usr/share
/bin/busybox --install -s
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
. /etc/machine.conf
fail() {
  echo "armhf-machine: guest: $*"
  poweroff -f
}
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/shm /dev/pts
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mount -t tmpfs -o mode=1777 tmpfs /tmp
mount -t devpts devpts /dev/pts
ip link set lo up
hostname armhf
for module in $modules; do
  insmod /modules/$module.ko || fail "cannot load $module"
done
echo "$shares" | while read -r tag path cache; do
  mkdir -p "$path"
  mount -t 9p -o "trans=virtio,version=9p2000.L,msize=262144,cache=$cache" "$tag" "$path" ||
    fail "cannot mount $tag at $path"
done
[ -d "$spool" ] || fail "no spool at $spool"
ln -s "$sysroot/lib/arm-linux-gnueabihf" /lib/arm-linux-gnueabihf
ln -s arm-linux-gnueabihf/ld-linux-armhf.so.3 /lib/ld-linux-armhf.so.3
ln -s "$sysroot/usr/lib/arm-linux-gnueabihf" /usr/lib/arm-linux-gnueabihf
ln -s "$sysroot/usr/share/fontconfig" /usr/share/fontconfig
ln -s "$sysroot/etc/fonts" /etc/fonts

echo 0 > "$spool/alive"
echo "Linux $(uname -r) on $(uname -m), $(nproc) processors" > "$spool/ready"
beat=0
while [ ! -e "$spool/poweroff" ]; do
  for job in "$spool"/*.job; do
    [ -e "$job" ] || break
    id=${job%.job}
    mv "$job" "$id.run" || continue
    # Not "&": the shell would start it with SIGINT and SIGQUIT ignored.
    start-stop-daemon -S -b -m -p "/run/jobs/${id##*/}" -x /bin/sh -- -c \
      'sh "$1.run" >> "$1.out" 2>> "$1.err" < /dev/null
       echo $? > "$1.rc.new" && mv "$1.rc.new" "$1.rc"' job "$id"
  done
  for request in "$spool"/*.kill; do
    [ -e "$request" ] || break
    id=${request%.kill}
    # The job's process group (start-stop-daemon forks twice: it is not the
    # job's own pid).
    group="$(sed 's/.*) //' "/proc/$(cat "/run/jobs/${id##*/}")/stat" | cut -d ' ' -f 3)"
    [ -z "$group" ] || kill -KILL -"$group"
    rm -f "$request"
  done
  beat=$((beat + 1))
  [ $((beat % 20)) != 1 ] || echo "$beat" > "$spool/alive"
  usleep 50000
done
sync
poweroff -f
EOF
chmod +x "$initramfs/init"
(cd "$initramfs" && find . | cpio -o -H newc --quiet > "$run/initrd.cpio")

machine=(
  qemu-system-arm -M virt,highmem=off -cpu cortex-a15 -smp 2 -m 1024
  -kernel "$kernel/vmlinuz" -initrd "$run/initrd.cpio"
  -append "console=ttyAMA0 rdinit=/init panic=-1"
  -nographic -no-reboot -nic none
)
for share in "${shares[@]}"; do
  read -r tag path _ <<< "$share"
  machine+=(-fsdev "local,id=$tag,path=$path,security_model=none"
    -device "virtio-9p-device,fsdev=$tag,mount_tag=$tag")
done

console="$run/console.log"
"${machine[@]}" > "$console" 2>&1 < /dev/null &
qemu=$!
echo "$qemu" > "$spool/qemu.pid"
# Asks the guest to power off (when it took jobs, it may write still), and
# ends qemu when it has not within 10 s.
stop() {
  if kill -0 "$qemu" 2> /dev/null; then
    : > "$spool/poweroff"
    for _ in $(seq 50); do
      [[ -s $spool/ready ]] || break
      kill -0 "$qemu" 2> /dev/null || break
      sleep 0.2
    done
    kill "$qemu" 2> /dev/null || true
  fi
  wait "$qemu" 2> /dev/null || true
}
trap stop EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

failed() {
  say "$*"
  say "the end of its console ($console):"
  tail -n 20 "$console" | sed 's/^/  /' >&2
  exit 1
}

started=$SECONDS
until [[ -s $spool/ready ]]; do
  kill -0 "$qemu" 2> /dev/null || failed "the emulated ARM machine stopped while booting"
  ((SECONDS - started < boot_bound)) || failed "the emulated ARM machine did not come up within $boot_bound s"
  sleep 0.2
done
say "$(cat "$spool/ready"), up in $((SECONDS - started)) s"

status=0
ZANTREL_ARMHF_MACHINE="$spool" ZANTREL_ARMHF_SILENCE_SECONDS="$silence_bound" "$@" || status=$?

if ! kill -0 "$qemu" 2> /dev/null; then
  failed "the emulated ARM machine stopped while the command ran"
elif (($(date +%s) - $(stat -c %Y "$spool/alive") > silence_bound)); then
  failed "the emulated ARM machine stopped answering while the command ran"
fi
stop
trap - EXIT
rm -rf "$run"
exit "$status"
