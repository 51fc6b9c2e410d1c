#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests, the tools and the
# fuzzers need, when any is missing. Needs root (apt-get).
set -euo pipefail

packages=(
  cmake make g++ pkg-config binutils
  libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri
  libglm-dev libgtest-dev googletest libbenchmark-dev glslang-tools
  libxml2-dev libjpeg62-turbo-dev libpng-dev clang libclang-rt-14-dev
  libavif-dev nlohmann-json3-dev dpkg-dev file python3 libjpeg-turbo-progs
  clang-format clang-tidy
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
