#!/usr/bin/env bash
# Builds a private root file system for a foreign architecture (i386, armhf,
# arm64) out of Debian's packages for that architecture: the C library, Mesa
# (EGL, GLES, llvmpipe), libjpeg-turbo, libpng, libxml2, libavif, nlohmann-json, GoogleTest and
# Google Benchmark with everything they depend on. The packages are
# downloaded and unpacked, never installed, so the machine's own packages are
# left as they are whatever versions its mirrors hold for other architectures.
#   scripts/make-sysroot.sh <arch> [root-dir]     (default /opt/hdrgpu-sysroot/<arch>)
# Prints the root directory. Does nothing when the root already holds this
# package set.
set -euo pipefail
arch=${1:?usage: make-sysroot.sh i386|armhf|arm64 [root-dir]}
case "$arch" in i386|armhf|arm64) ;; *) echo "unknown architecture: $arch" >&2; exit 2 ;; esac
root=${2:-/opt/hdrgpu-sysroot/$arch}

wanted=(libc6-dev libstdc++6 libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri
        libjpeg62-turbo-dev libpng-dev libxml2-dev libavif-dev libgtest-dev libbenchmark-dev)
# Architecture-independent headers the above need from the root.
headers=(libglm-dev x11proto-dev nlohmann-json3-dev)

stamp="$root/.hdrgpu-sysroot"
signature="$arch ${wanted[*]} ${headers[*]}"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$signature" ]; then
  echo "$root"
  exit 0
fi

# apt works on a private state of its own for that architecture (package
# lists, cache, an empty "installed" database): the machine's dpkg
# architectures and package lists are not touched.
state="$root.apt"
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs"
: > "$state/status"
apt_opts=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
          -o "Dir::State::Lists=$state/lists" -o "Dir::State::status=$state/status"
          -o "Dir::Cache=$state/cache" -o "APT::Sandbox::User=root")
# A mirror half-way through a sync may fail one index (security updates);
# the main archive's are enough.
apt-get "${apt_opts[@]}" update -qq || echo "make-sysroot: some $arch package lists could not be fetched" >&2

# Every run-time and build-time package of that architecture the wanted ones
# pull in (architecture-independent ones are tools or data we do not need).
mapfile -t closure < <(
  apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests --no-conflicts \
      --no-breaks --no-replaces --no-enhances "${wanted[@]}" 2>/dev/null |
    grep -E '^[a-z0-9][^ <:]*$' | sort -u)
if [ ${#closure[@]} -lt ${#wanted[@]} ]; then
  echo "make-sysroot: could not resolve the $arch packages" >&2
  exit 1
fi

debs="$state/debs"
rm -f "$debs"/*.deb
(cd "$debs" && apt-get "${apt_opts[@]}" download -qq "${closure[@]}" "${headers[@]}" >&2)

rm -rf "$root"
mkdir -p "$root"
for deb in "$debs"/*.deb; do
  dpkg-deb -x "$deb" "$root"
done
# Debian 12 merges /lib into /usr/lib; the packages ship both halves.
for d in lib lib32 lib64; do
  if [ -d "$root/$d" ] && [ ! -L "$root/$d" ]; then
    cp -a "$root/$d/." "$root/usr/$d/" 2>/dev/null || { mkdir -p "$root/usr/$d"; cp -a "$root/$d/." "$root/usr/$d/"; }
    rm -rf "${root:?}/$d"
  fi
  if [ -d "$root/usr/$d" ]; then ln -s "usr/$d" "$root/$d"; fi
done
# Absolute symbolic links (libz.so -> /lib/...) must stay inside the root.
# (Linker scripts name absolute paths too; the linker reads those relative
# to the root through --sysroot.)
find "$root" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
done
printf '%s\n' "$signature" > "$stamp"
echo "$root"
