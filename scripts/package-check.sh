#!/usr/bin/env bash
# Builds the Debian packages (Release, prefix /usr) with CPack, installs them
# on this machine with apt-get, builds the example host tests/install/consumer
# against /usr (CMake package and pkg-config), makes a sample and converts it
# with /usr/bin/hdrgpu-convert, then removes the packages again so that the
# machine is as before. Needs root.
#   scripts/package-check.sh [build-dir]      (default build-release)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build-release}
case $build in /*) ;; *) build=$root/$build ;; esac
jobs=$(nproc 2>/dev/null || echo 2)
packages=(libhdrgpubackend1 libhdrgpubackend-dev hdrgpu-convert)

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DHDRGPU_BUILD_TESTS=OFF -DHDRGPU_BUILD_BENCHMARKS=OFF
cmake --build "$build" -j "$jobs"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB)

debs=("$build"/*.deb)
if [ ${#debs[@]} -ne 3 ]; then
  echo "expected 3 packages, got: ${debs[*]}" >&2
  exit 1
fi
for deb in "${debs[@]}"; do
  echo "--- $(basename "$deb")"
  dpkg-deb --field "$deb" Package Version Depends Recommends
  dpkg-deb --contents "$deb" | awk '{print "    " $6 ($7 ? " " $7 " " $8 : "")}'
done
# The runtime package is named after the library's SONAME.
soname=$(dpkg-deb --fsys-tarfile "$build"/libhdrgpubackend1_*.deb | tar -t | grep -c 'libhdrgpubackend\.so\.1$' || true)
if [ "$soname" -ne 1 ]; then
  echo "libhdrgpubackend1 does not ship libhdrgpubackend.so.1" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
# Never accept a plan that removes anything.
plan=$(apt-get install -s --no-install-recommends "${debs[@]}")
if grep -q '^Remv' <<<"$plan"; then
  echo "installing the packages would remove packages:" >&2
  grep '^Remv' <<<"$plan" >&2
  exit 1
fi

work=$(mktemp -d)
cleanup() {
  apt-get purge -y -qq "${packages[@]}" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
apt-get install -y -qq --no-install-recommends "${debs[@]}"

echo "== a host built against /usr (CMake package) =="
cmake -S "$root/tests/install/consumer" -B "$work/consumer" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

echo "== a host built against /usr (pkg-config) =="
# shellcheck disable=SC2046
c++ -std=c++17 "$root/tests/install/consumer/main.cpp" $(pkg-config --cflags --libs hdrgpubackend) -o "$work/consumer-pc"
"$work/consumer-pc"

echo "== /usr/bin/hdrgpu-convert =="
convert=/usr/bin/hdrgpu-convert
# The installed tool must use the installed library, not a build tree's.
lib=$(readlink -f "$(ldd "$convert" | awk '/libhdrgpubackend\.so\.1/ {print $3}')")
echo "libhdrgpubackend.so.1 -> $lib"
case $lib in /usr/lib/*) ;; *) echo "the converter does not load the installed library" >&2; exit 1 ;; esac
"$convert" --make-sample "$work/sample.jpg"
"$convert" "$work/sample.jpg" -o "$work/out"
"$convert" --format pq-png --json "$work/report.json" "$work/sample.jpg" -o "$work/out-pq"
"$convert" --format avif "$work/sample.jpg" -o "$work/out-avif"
test -s "$work/out/sample.png"
test -s "$work/out-pq/sample.png"
test -s "$work/out-avif/sample.avif"
python3 -c 'import json, sys; r = json.load(open(sys.argv[1])); assert r["summary"]["converted"] == 1, r' "$work/report.json"

echo "== removing the packages =="
apt-get purge -y -qq "${packages[@]}"
for p in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    echo "$p is still installed" >&2
    exit 1
  fi
done
echo "package check passed"
