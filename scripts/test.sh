#!/usr/bin/env bash
# Builds everything with warnings as errors and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANDELDSP_WERROR=ON
cmake --build build-test -j "$(nproc)"
# A death test has been seen to hang once under parallel load (cause not yet found): a hung test is
# stopped after a minute and run once more.
ctest --test-dir build-test --output-on-failure -j "$(nproc)" --repeat until-pass:2

# The library must also build warning-free with clang.
CC=clang CXX=clang++ cmake -S . -B build-clang -DORVANDELDSP_WERROR=ON -DORVANDELDSP_BUILD_BENCHMARKS=OFF
cmake --build build-clang -j "$(nproc)"
