#!/usr/bin/env bash
# Builds the whole project (library, converter, tests, benchmarks) for
# another architecture with Debian's cross compilers and a private root of
# that architecture's packages, and runs what can run there:
#   i386   the whole test suite, natively (a 32-bit program on x86-64)
#   armhf  a smoke run under qemu-user (scripts/arm-smoke.sh)
#   arm64  a smoke run under qemu-user
#   scripts/build-target.sh i386|armhf|arm64 [build-dir]   (default build-<arch>)
# HDRGPU_TARGET_RUN=0 builds only.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:?usage: build-target.sh i386|armhf|arm64 [build-dir]}
build=$(realpath -m "${2:-$root/build-$arch}")
jobs=$(nproc 2>/dev/null || echo 2)

case "$arch" in
  i386)  compiler=g++-i686-linux-gnu ;;
  armhf) compiler=g++-arm-linux-gnueabihf ;;
  arm64) compiler=g++-aarch64-linux-gnu ;;
  *) echo "unknown target: $arch" >&2; exit 2 ;;
esac
# Host tools: the cross compiler, qemu for ARM, and what the native build
# uses (glslangValidator, pkg-config, cmake).
bash "$root/scripts/install-packages.sh"
host=("$compiler")
[ "$arch" = i386 ] || host+=(qemu-user-static)
missing=()
for p in "${host[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
sysroot=$(bash "$root/scripts/make-sysroot.sh" "$arch")

# No build type: no optimisation and no debug information, the quickest
# to compile; warnings are errors as always.
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/$arch.cmake" \
  -DHDRGPU_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=
cmake --build "$build" -j "$jobs"

# The word size of what was built, for the log.
lib=$(find "$build/src" -maxdepth 1 -name 'libhdrgpubackend.so.*.*' | head -n 1)
echo "$arch: $(readelf -h "$lib" | sed -n 's/^ *\(Class\|Machine\): *//p' | paste -sd ' ')"

[ "${HDRGPU_TARGET_RUN:-1}" = 1 ] || exit 0
if [ "$arch" = i386 ]; then
  ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
else
  bash "$root/scripts/arm-smoke.sh" "$arch" "$build"
fi
