#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with, when
# they are missing. Needs root (the project's machines run as root).
set -euo pipefail

packages=(
  # Build
  cmake ninja-build g++ pkg-config binutils
  # Tests, benchmarks and the format check
  libgtest-dev libgmock-dev libbenchmark-dev clang-format
  # The encoder's cost counted in instructions (bench/encoder-instructions.sh)
  valgrind
  # The lint stage of the tests (scripts/lint.sh, checks in .clang-tidy)
  clang-tidy
  # Text rendering (cairo, FreeType, GLib) and the one font the library opens;
  # the simulated driver and the tools also write PNG through cairo
  libcairo2-dev libfreetype-dev libglib2.0-dev fonts-wqy-microhei
  # libFuzzer harnesses
  clang
  # zantrelctl's JSON output
  nlohmann-json3-dev
  # The HTML reference of the public header (the docs target)
  doxygen
  # The camera's architecture: cross compilers for armhf, qemu-arm to run
  # its programs, and what scripts/armhf-sysroot.sh downloads and unpacks with
  g++-arm-linux-gnueabihf qemu-user-static util-linux apt dpkg
  # The emulated ARM machine the armhf suite runs in (scripts/armhf-guest.sh):
  # the machine itself, and cpio for its initramfs
  qemu-system-arm cpio
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} > 0)); then
  echo "setup: installing ${missing[*]}"
  if [[ $(id -u) -ne 0 ]]; then
    echo "setup: run as root to install packages" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
