#!/usr/bin/env bash
# Builds everything with warnings as errors and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVANDELDSP_WERROR=ON
cmake --build build-test -j "$(nproc)"
ctest --test-dir build-test --output-on-failure -j "$(nproc)"

# The whole tree must also build warning-free with clang, here under ThreadSanitizer, which then runs the
# whole test program; its heap watcher counts through the sanitizer's allocator hooks there instead of
# replacing malloc. Address-space randomisation is off for that run: some kernels randomise more bits
# than the sanitizer's memory layout allows.
CC=clang CXX=clang++ cmake -S . -B build-clang -DORVANDELDSP_WERROR=ON -DORVANDELDSP_BUILD_BENCHMARKS=OFF \
  -DORVANDELDSP_SANITIZE=thread
cmake --build build-clang -j "$(nproc)"
TSAN_OPTIONS="halt_on_error=1 abort_on_error=1 suppressions=$PWD/tests/tsan.supp" \
  setarch "$(uname -m)" -R build-clang/tests/orvandeldsp-tests --gtest_brief=1
