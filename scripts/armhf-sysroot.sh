#!/usr/bin/env bash
# Makes build/armhf-sysroot: the headers and libraries of Debian 12 armhf that
# the project builds and tests against, for the cross build (cmake/armhf.cmake)
# and for running its programs under qemu-arm or on the emulated ARM machine;
# and build/armhf-kernel: the kernel, the few modules and the busybox of that
# machine (scripts/armhf-machine.sh boots it).
#
# apt runs with a state, lists and cache of its own and armhf as its only
# architecture, so the machine's own package database is never touched. The
# packages are unpacked with dpkg-deb (no maintainer scripts run), so what
# those scripts would do is done here: absolute symlinks made relative, and
# fontconfig's configuration links. The font file itself is not in the
# sysroot: the emulated programs open the machine's.
#
# Does nothing when both are already complete for these package lists.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
sysroot="$root/build/armhf-sysroot"
kernel="$root/build/armhf-kernel"
work="$root/build/armhf-apt"

packages=(
  libc6-dev libstdc++-12-dev
  libcairo2-dev libfreetype-dev libglib2.0-dev libfontconfig-dev
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
)
# Debian 12's own suites; its security suite is left out, since a sysroot that
# only builds and tests does not need it and its armhf index has been seen not
# to match its release file.
suites=(bookworm bookworm-updates)
# The emulated machine: Debian's armhf kernel (its image and the modules that
# the shared directories need, in the order they load) and a static busybox
# for its initramfs.
kernel_packages=(linux-image-armmp busybox-static)
kernel_modules=(virtio_mmio netfs fscache 9pnet 9pnet_virtio 9p)

stamp="$sysroot/.zantrel-sysroot"
wanted="packages: ${packages[*]}; suites: ${suites[*]}; at: $sysroot"
kernel_stamp="$kernel/.zantrel-kernel"
kernel_wanted="packages: ${kernel_packages[*]}; modules: ${kernel_modules[*]}; suites: ${suites[*]}"
sysroot_done=false kernel_done=false
if [[ -f $stamp && "$(cat "$stamp")" == "$wanted" ]]; then
  echo "armhf-sysroot: $sysroot is up to date"
  sysroot_done=true
fi
if [[ -f $kernel_stamp && "$(cat "$kernel_stamp")" == "$kernel_wanted" ]]; then
  echo "armhf-sysroot: $kernel is up to date"
  kernel_done=true
fi
if $sysroot_done && $kernel_done; then
  exit 0
fi

# The mirror is the one the machine's own apt uses for Debian 12.
mirror_of() {
  apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' 2>/dev/null |
    awk -v suite="$1" '$2 == suite { print $1; exit }'
}
if [[ -z "$(mirror_of bookworm)" ]]; then
  apt-get update -qq
fi
mirror="$(mirror_of bookworm)"
if [[ -z $mirror ]]; then
  echo "armhf-sysroot: the machine's apt has no source for Debian 12 (bookworm)" >&2
  exit 1
fi

rm -rf "$work"
mkdir -p "$work/lists/partial" "$work/archives/partial" "$work/sources.list.d" "$work/preferences.d"
touch "$work/status"
for suite in "${suites[@]}"; do
  echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main"
done > "$work/sources.list"

apt_options=(
  -o APT::Architecture=armhf -o APT::Architectures::=armhf
  -o Dir::State="$work" -o Dir::State::Lists="$work/lists" -o Dir::State::status="$work/status"
  -o Dir::Cache="$work" -o Dir::Cache::Archives="$work/archives"
  -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=
  -o Dir::Etc::SourceList="$work/sources.list" -o Dir::Etc::SourceParts="$work/sources.list.d"
  -o Dir::Etc::Preferences="$work/preferences" -o Dir::Etc::PreferencesParts="$work/preferences.d"
  -o Debug::NoLocking=true -o APT::Install-Recommends=false -o APT::Sandbox::User=root
)
apt-get "${apt_options[@]}" update -qq

if ! $sysroot_done; then
  rm -rf "$sysroot"
  mkdir -p "$sysroot"
  echo "armhf-sysroot: downloading ${packages[*]} and their dependencies for armhf"
  apt-get "${apt_options[@]}" install -y -qq --download-only "${packages[@]}" > "$work/install.log"

  debs=("$work"/archives/*.deb)
  for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$sysroot"
  done

  # Absolute links point into the sysroot, wherever it is mounted or moved.
  while IFS= read -r -d '' link; do
    target="$(readlink "$link")"
    if [[ $target == /* ]]; then
      ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
    fi
  done < <(find "$sysroot" -type l -print0)

  # What fontconfig-config's maintainer scripts set up on a real system: slight
  # hinting and no bitmap fonts. Text renders exactly as on the machine.
  for conf in 10-hinting-slight.conf 70-no-bitmaps.conf; do
    ln -sfn "../../../usr/share/fontconfig/conf.avail/$conf" "$sysroot/etc/fonts/conf.d/$conf"
  done
  # Emulated programs see the sysroot's /etc/fonts; their font cache (32-bit
  # files) goes inside the sysroot instead of the machine's cache directory.
  mkdir -p "$sysroot/var/cache/fontconfig"
  sed -i "s|<cachedir>/var/cache/fontconfig</cachedir>|<cachedir>$sysroot/var/cache/fontconfig</cachedir>|" \
    "$sysroot/etc/fonts/fonts.conf"

  echo "$wanted" > "$stamp"
  echo "armhf-sysroot: ${#debs[@]} packages in $sysroot ($(du -sh "$work/archives" | cut -f1) downloaded)"
fi

if ! $kernel_done; then
  # The image package is versioned (linux-image-6.1.0-N-armmp): the
  # metapackage names it. Only the image and its package are downloaded, not
  # what installing a kernel needs (initramfs-tools, kmod), and only the files
  # the machine boots with are unpacked.
  image="$(apt-cache "${apt_options[@]}" depends linux-image-armmp |
    awk '$1 == "Depends:" && $2 ~ /^linux-image-/ { print $2; exit }')"
  if [[ -z $image ]]; then
    echo "armhf-sysroot: no armhf kernel image named by linux-image-armmp" >&2
    exit 1
  fi
  echo "armhf-sysroot: downloading $image and busybox-static for the emulated machine"
  rm -rf "$kernel" "$work/kernel"
  mkdir -p "$kernel/modules" "$work/kernel"
  (cd "$work/kernel" && apt-get "${apt_options[@]}" download -qq "$image" busybox-static)
  unpacked="$work/kernel/unpacked"
  mkdir -p "$unpacked"
  patterns=(./boot/vmlinuz-*)
  for module in "${kernel_modules[@]}"; do
    patterns+=("./lib/modules/*/$module.ko")
  done
  dpkg-deb --fsys-tarfile "$work"/kernel/linux-image-*.deb |
    tar -x -C "$unpacked" --wildcards "${patterns[@]}"
  dpkg-deb -x "$work"/kernel/busybox-static_*.deb "$unpacked"
  mv "$unpacked"/boot/vmlinuz-* "$kernel/vmlinuz"
  mv "$unpacked/bin/busybox" "$kernel/busybox"
  for module in "${kernel_modules[@]}"; do
    found="$(find "$unpacked/lib/modules" -name "$module.ko" -print -quit)"
    if [[ -z $found ]]; then
      echo "armhf-sysroot: $image has no module $module" >&2
      exit 1
    fi
    mv "$found" "$kernel/modules/$module.ko"
  done
  echo "${kernel_modules[*]}" > "$kernel/modules/order"
  rm -rf "$work/kernel"
  echo "$kernel_wanted" > "$kernel_stamp"
  echo "armhf-sysroot: $image and busybox in $kernel"
fi
