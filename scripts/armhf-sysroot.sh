#!/usr/bin/env bash
# Makes build/armhf-sysroot: the headers and libraries of Debian 12 armhf that
# the project builds and tests against, for the cross build (cmake/armhf.cmake)
# and for running its programs under qemu-arm.
#
# apt runs with a state, lists and cache of its own and armhf as its only
# architecture, so the machine's own package database is never touched. The
# packages are unpacked with dpkg-deb (no maintainer scripts run), so what
# those scripts would do is done here: absolute symlinks made relative, and
# fontconfig's configuration links. The font file itself is not in the
# sysroot: the emulated programs open the machine's.
#
# Does nothing when the sysroot is already complete for this package list.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
sysroot="$root/build/armhf-sysroot"
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

stamp="$sysroot/.zantrel-sysroot"
wanted="packages: ${packages[*]}; suites: ${suites[*]}; at: $sysroot"
if [[ -f $stamp && "$(cat "$stamp")" == "$wanted" ]]; then
  echo "armhf-sysroot: $sysroot is up to date"
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

rm -rf "$work" "$sysroot"
mkdir -p "$work/lists/partial" "$work/archives/partial" "$work/sources.list.d" \
  "$work/preferences.d" "$sysroot"
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
echo "armhf-sysroot: downloading ${packages[*]} and their dependencies for armhf"
apt-get "${apt_options[@]}" update -qq
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
