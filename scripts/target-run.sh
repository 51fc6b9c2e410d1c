#!/usr/bin/env bash
# Runs a program built for another architecture against its private root
# (scripts/make-sysroot.sh): i386 natively (its programs are linked to the
# root's dynamic loader and libraries), armhf and arm64 under qemu-user. Mesa's llvmpipe is taken from the
# root, on the surfaceless EGL platform.
#   scripts/target-run.sh <arch> <root> <program> [arguments...]
set -euo pipefail
arch=$1 root=$2
shift 2
case "$arch" in
  i386)  triplet=i386-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf; qemu=qemu-arm-static ;;
  arm64) triplet=aarch64-linux-gnu;   qemu=qemu-aarch64-static ;;
  *) echo "target-run: unknown architecture $arch" >&2; exit 2 ;;
esac
libs="$root/usr/lib/$triplet"
export LIBGL_DRIVERS_PATH="$libs/dri"
export __EGL_VENDOR_LIBRARY_DIRS="$root/usr/share/glvnd/egl_vendor.d"
export EGL_PLATFORM=surfaceless
if [ "$arch" = i386 ]; then
  export LD_LIBRARY_PATH="$libs${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
  exec "$@"
fi
# qemu resolves the program's absolute paths (its loader, the ld.so cache)
# inside the root first; the guest alone gets the library path.
export QEMU_LD_PREFIX="$root"
exec "$qemu" -E "LD_LIBRARY_PATH=$libs" "$@"
