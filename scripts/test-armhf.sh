#!/usr/bin/env bash
# Builds for the speaker's ARM board (scripts/build-armhf.sh) and runs the whole test suite of
# build-armhf/ under qemu-arm, with the comparison of the ARM tool's output files against the x86-64
# tool's. Every test runs here as on x86-64, the death tests too: they re-execute the test program,
# which an emulated program can only do through a script that starts the emulator again, so CTest
# hands them such a script as their argv[0] (see tests/CMakeLists.txt).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/build-armhf.sh"
ctest --test-dir "$root/build-armhf" --output-on-failure -j "$(nproc)"
