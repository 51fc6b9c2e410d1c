#!/usr/bin/env bash
# The first thing to run: installs what is missing, builds the library and
# the converter, makes a synthetic gain-map photograph and renders it to HDR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-release"
demo="$build/demo"

bash "$root/scripts/install-packages.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DHDRGPU_BUILD_TESTS=OFF -DHDRGPU_BUILD_BENCHMARKS=OFF
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target hdrgpu-convert

convert="$build/tools/hdrgpu-convert/hdrgpu-convert"
mkdir -p "$demo"
"$convert" --make-sample "$demo/sample.jpg"
"$convert" "$demo/sample.jpg" -o "$demo"
echo "HDR picture: $demo/sample.png"
