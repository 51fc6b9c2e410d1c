#!/usr/bin/env bash
# The build against the platform's own packages, proven on plain Linux: the
# three stand-ins are installed as if they were the platform's packages
# (libtbm, capi-system-info, dlog: their headers, libraries with the
# platform's sonames and pkg-config files, in a prefix of their own), the
# library is configured with HDRGPU_USE_PLATFORM_PACKAGES=ON against that
# prefix only, built, checked to hold and need no stand-in code, and the
# public-interface tests run against it.
#   scripts/platform-packages-check.sh [build-dir]     (default build-platform)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$root/build-platform}")
prefix="$build/platform-prefix"
jobs=$(nproc 2>/dev/null || echo 2)

# --- The three packages ------------------------------------------------------
rm -rf "$prefix"
mkdir -p "$prefix/lib/pkgconfig" "$prefix/include/system" "$prefix/include/dlog"
# package  soname  source  header-dir  version
make_package() {
  local name=$1 lib=$2 soversion=$3 source=$4 incdir=$5 version=$6
  shift 6
  local headers=("$@")
  for h in "${headers[@]}"; do cp "$h" "$prefix/include/$incdir"; done
  g++ -std=c++17 -O2 -fPIC -shared -Wall -Wextra -Werror \
      -I"$prefix/include/$incdir" "$source" \
      -Wl,-soname,"lib$lib.so.$soversion" -Wl,--no-undefined -pthread \
      -o "$prefix/lib/lib$lib.so.$soversion"
  ln -sfn "lib$lib.so.$soversion" "$prefix/lib/lib$lib.so"
  cat > "$prefix/lib/pkgconfig/$name.pc" <<PC
prefix=$prefix
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: $name
Description: $name (plain-Linux stand-in, installed as the platform package)
Version: $version
Libs: -L\${libdir} -l$lib
Cflags: -I\${includedir}/$incdir
PC
}
p="$root/platform"
# The stand-ins' control headers travel with their packages: the tests use them.
make_package libtbm tbm 1 "$p/tbm/tbm_surface.cpp" "" 1.0.0 \
  "$p/tbm/include/tbm_surface.h" "$p/tbm/include/tbm_surface_standin.h"
make_package capi-system-info capi-system-info 0 "$p/system_info/system_info.cpp" system 0.2.0 \
  "$p/system_info/include/system_info.h" "$p/system_info/include/system_info_standin.h"
make_package dlog dlog 0 "$p/dlog/dlog.cpp" dlog 0.5.0 \
  "$p/dlog/include/dlog.h" "$p/dlog/include/dlog_standin.h"
sed -i 's|^Cflags: -I${includedir}/$|Cflags: -I${includedir}|' "$prefix/lib/pkgconfig/libtbm.pc"

# --- The library against that prefix only ------------------------------------
# The platform's packages come from the prefix alone; EGL, GLES and the rest
# from the machine. Mesa has no native-surface image target, so the output
# images are made by surface copy.
system_pc=$(pkg-config --variable pc_path pkg-config)
export PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig:$system_pc"
export PKG_CONFIG_PATH=
for pc in libtbm capi-system-info dlog; do
  [ "$(pkg-config --variable=prefix "$pc")" = "$prefix" ] || { echo "$pc is not the prefix's" >&2; exit 1; }
done
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DHDRGPU_USE_PLATFORM_PACKAGES=ON -DHDRGPU_NATIVE_SURFACE_IMAGES=OFF \
  -DHDRGPU_BUILD_BENCHMARKS=OFF
targets=(hdrgpubackend hdrgpu-convert abi_tests public_api_tests minimal_host)
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

# --- Nothing of the stand-ins in or beside the library -----------------------
lib=$(find "$build/src" -maxdepth 1 -name 'libhdrgpubackend.so.*.*' | head -n 1)
fail=0
# Each check's status is its last command's: grep -q may stop reading early,
# and the writer's SIGPIPE must not count as a failure.
check() { if ! (set +o pipefail; eval "$2"); then echo "FAILED: $1" >&2; fail=1; else echo "ok: $1"; fi; }
needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
echo "NEEDED of $(basename "$lib"): $(echo $needed)"
check "the library needs libtbm.so.1" "grep -qx libtbm.so.1 <<<\"\$needed\""
check "the library needs libcapi-system-info.so.0" "grep -qx libcapi-system-info.so.0 <<<\"\$needed\""
check "the library needs libdlog.so.0" "grep -qx libdlog.so.0 <<<\"\$needed\""
check "the library needs no stand-in library" "! grep -q standin <<<\"\$needed\""
defined=$(nm -D --defined-only "$lib" | awk '{print $NF}')
check "the library defines no tbm_ symbol" "! grep -q '^tbm_' <<<\"\$defined\""
check "the library defines no system_info_ symbol" "! grep -q '^system_info_' <<<\"\$defined\""
check "the library defines no dlog symbol" "! grep -Eq '^_*dlog_' <<<\"\$defined\""
check "no stand-in symbol anywhere in the library" "! nm -a '$lib' 2>/dev/null | grep -qi standin"
check "the library calls the packages' tbm_surface_create" "nm -D --undefined-only '$lib' | grep -qw tbm_surface_create"
check "the library calls the packages' system_info_get_value_int" "nm -D --undefined-only '$lib' | grep -qw system_info_get_value_int"
check "no stand-in library built beside it" "[ -z \"\$(find '$build' -path '$prefix' -prune -o -name 'libhdrgpu-standin-*' -print)\" ]"
check "no stand-in source compiled" "! grep -q '/platform/' '$build/compile_commands.json'"
check "the library resolves the packages from the prefix" \
  "LD_LIBRARY_PATH='$prefix/lib' ldd '$lib' | grep -q '$prefix/lib/libdlog.so.0'"
[ "$fail" = 0 ] || exit 1

# --- The public-interface tests against it -----------------------------------
LD_LIBRARY_PATH="$prefix/lib" ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300 \
  -R '^(Abi\.|PublicApi|Exports\.|Examples\.MinimalHost|Library\.HasSoname)'
