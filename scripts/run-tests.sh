#!/usr/bin/env bash
# Configures, builds and runs the whole test suite in one build directory.
#   scripts/run-tests.sh [build-dir] [extra CMake arguments...]
# e.g. scripts/run-tests.sh build-asan -DHDRGPU_SANITIZE=ON
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug "$@"
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
