#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tools and the tests need.
set -euo pipefail

packages=(
  cmake g++ clang pkg-config
  libglib2.0-dev libglib2.0-dev-bin libasound2-dev libflac-dev libsndfile1-dev
  graphviz dbus flac groff-base
  gnuplot-nox
  googletest libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
