#!/usr/bin/env bash
# Runs clang-tidy (.clang-tidy) over the library's and the tools' sources
# with the compile commands of a build directory, configuring one if needed.
#   scripts/run-clang-tidy.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-tidy}

if [ ! -f "$build/compile_commands.json" ]; then
  cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DHDRGPU_BUILD_TESTS=OFF \
    -DHDRGPU_BUILD_BENCHMARKS=OFF > /dev/null
fi

mapfile -t sources < <(git ls-files 'src/*.cpp' 'tools/*.cpp')
jobs=$(nproc 2>/dev/null || echo 2)
printf '%s\n' "${sources[@]}" | xargs -P "$jobs" -n 4 clang-tidy --quiet -p "$build"
echo "clang-tidy: ${#sources[@]} sources clean"
