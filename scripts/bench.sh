#!/usr/bin/env bash
# Builds optimised and runs the benchmarks; figures are only comparable within one run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DORVANDELDSP_BUILD_TESTS=OFF
cmake --build build-bench -j "$(nproc)" --target orvandeldsp-bench
build-bench/bench/orvandeldsp-bench "$@"
