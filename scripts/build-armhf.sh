#!/usr/bin/env bash
# Cross-builds the library, the tool, the tests and the benchmarks for the speaker's 32-bit ARM board
# (armhf, Cortex-A with NEON) into build-armhf/. The armhf libraries come from Debian's packages,
# unpacked into build-armhf/sysroot by an apt of their own; armhf never becomes a dpkg architecture of
# this machine, whose own apt-get update would then fail on the armhf indexes.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build-armhf"
sysroot="$build/sysroot"
apt_dir="$build/apt"
host_build="$build/host"
mirror="${ORVANDELDSP_ARMHF_MIRROR:-http://deb.debian.org/debian}"
sysroot_packages=(
  libglib2.0-dev libflac-dev libasound2-dev libsndfile1-dev libgtest-dev libgmock-dev libbenchmark-dev
  libc6-dev libstdc++-12-dev
)

install_host_packages() {
  bash "$root/scripts/install-deps.sh"
  local missing=()
  for package in g++-arm-linux-gnueabihf qemu-user; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
  fi
}

# apt with every piece of state under build-armhf/apt: its own sources (the main archive only; the
# security archive's armhf index does not download here), package lists, status and caches.
armhf_apt() {
  apt-get -q \
    -o APT::Architecture=armhf -o APT::Architectures=armhf \
    -o Dir::Etc::SourceList="$apt_dir/sources.list" -o Dir::Etc::SourceParts="$apt_dir/empty" \
    -o Dir::Etc::Preferences="$apt_dir/empty/none" -o Dir::Etc::PreferencesParts="$apt_dir/empty" \
    -o Dir::State="$apt_dir/state" -o Dir::State::Lists="$apt_dir/lists" \
    -o Dir::State::status="$apt_dir/status" -o Dir::Cache="$apt_dir/cache" \
    -o Dir::Cache::Archives="$apt_dir/archives" "$@"
}

build_sysroot() {
  rm -rf "$apt_dir" "$sysroot"
  mkdir -p "$apt_dir/empty" "$apt_dir/state" "$apt_dir/lists/partial" "$apt_dir/cache" \
    "$apt_dir/archives/partial"
  : >"$apt_dir/status"
  local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  printf 'deb [signed-by=%s] %s %s main\n' "$keyring" "$mirror" bookworm "$keyring" "$mirror" \
    bookworm-updates >"$apt_dir/sources.list"
  armhf_apt update
  armhf_apt install -y --download-only --no-install-recommends "${sysroot_packages[@]}"
  mkdir -p "$sysroot"
  for deb in "$apt_dir"/archives/*.deb; do
    dpkg-deb -x "$deb" "$sysroot"
  done
  echo "${sysroot_packages[*]}" >"$sysroot/.packages"
}

# The kernel generator runs on this machine (the sound generator runs under the emulator), and the
# ARM tool's tests compare its output files with those of this machine's tool.
build_host_tools() {
  cmake -S "$root" -B "$host_build" -DORVANDELDSP_WERROR=ON -DORVANDELDSP_BUILD_TESTS=OFF \
    -DORVANDELDSP_BUILD_BENCHMARKS=OFF
  cmake --build "$host_build" -j "$(nproc)" --target orvandeldsp-kernel-generator orvandeldsp-tool
}

install_host_packages
# Made again only when it is missing, unfinished or made for another list of packages.
[ "$(cat "$sysroot/.packages" 2>/dev/null)" = "${sysroot_packages[*]}" ] || build_sysroot
build_host_tools
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake" \
  -DORVANDELDSP_ARMHF_SYSROOT="$sysroot" -DORVANDELDSP_WERROR=ON \
  -DORVANDELDSP_HOST_KERNEL_GENERATOR="$host_build/orvandeldsp-kernel-generator" \
  -DORVANDELDSP_REFERENCE_TOOL="$host_build/tools/orvandeldsp"
cmake --build "$build" -j "$(nproc)"
