#!/usr/bin/env bash
# A smoke run of an ARM build (scripts/build-target.sh armhf|arm64) under
# qemu-user with the target's own Mesa (llvmpipe on arm64, softpipe on armhf,
# see below): the records' layout, the engine's lifecycle, a picture in the
# direct mode and a streaming cycle of three pictures compared with the CPU
# model, and the converter on the small sample photograph compared with the
# build machine's converter. Mesa under qemu is slow: small pictures, a chosen
# subset.
#   scripts/arm-smoke.sh armhf|arm64 [build-dir]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arch=${1:?usage: arm-smoke.sh armhf|arm64 [build-dir]}
build=$(realpath -m "${2:-$root/build-$arch}")
sysroot=$(grep '^HDRGPU_SYSROOT:' "$build/CMakeCache.txt" | cut -d= -f2-)
run=("$root/scripts/target-run.sh" "$arch" "$sysroot")

passed=0 failed=0
smoke() {
  local name=$1
  shift
  local start=$SECONDS
  # A skipped test proves nothing here: it counts as a failure.
  if "${run[@]}" "$@" > "$build/smoke-$name.log" 2>&1 &&
     ! grep -q '^\[  SKIPPED \]' "$build/smoke-$name.log"; then
    passed=$((passed + 1)); echo "PASS $name ($((SECONDS - start)) s)"
  else
    failed=$((failed + 1)); echo "FAIL $name ($((SECONDS - start)) s)"; tail -n 40 "$build/smoke-$name.log"
  fi
  grep -E '^\[  (PASSED|FAILED|SKIPPED) ' "$build/smoke-$name.log" | sed 's/^/    /' || true
}

# On armhf, llvmpipe's JIT code under qemu-arm draws wrong pixels (the same
# library on softpipe, Mesa's interpreter, draws what the model says), so
# the 32-bit ARM smoke renders with softpipe. HDRGPU_SMOKE_GALLIUM_DRIVER
# overrides the choice.
if [ "$arch" = armhf ]; then
  export GALLIUM_DRIVER=${HDRGPU_SMOKE_GALLIUM_DRIVER:-softpipe}
elif [ -n "${HDRGPU_SMOKE_GALLIUM_DRIVER:-}" ]; then
  export GALLIUM_DRIVER=$HDRGPU_SMOKE_GALLIUM_DRIVER
fi
echo "$arch smoke: Mesa ${GALLIUM_DRIVER:-llvmpipe} under $(basename "$(command -v qemu-"${arch/armhf/arm}"-static 2>/dev/null || echo qemu)")"

t="$build/tests"
smoke abi "$t/abi_tests"
smoke engine-lifecycle "$t/engine_tests" \
  --gtest_filter='EngineLifecycle.DirectInitBuildsEverything:EngineLifecycle.StreamingInitMakesNoSurface:EngineLifecycle.TeardownReleasesItsObjects'
smoke pictures "$t/public_api_tests" \
  --gtest_filter='PublicApiCycles.DirectOneShot:PublicApiCycles.StreamingCycle'
# The converter on the small sample photograph, under qemu, against the
# build machine's own converter (whose pictures the test suite compares
# with the CPU model there): the same size and every byte within 2 of it
# (two renderers' roundings; on armhf both sides use softpipe, so they
# agree exactly). Comparing with the model under qemu itself
# would take many minutes of emulated floating point.
sample="$root/../shared/samples/vearutop_small_uhdr.jpg"
host_convert=""
for b in build-release build-native build; do
  [ -x "$root/$b/tools/hdrgpu-convert/hdrgpu-convert" ] && { host_convert="$root/$b/tools/hdrgpu-convert/hdrgpu-convert"; break; }
done
if [ -z "$host_convert" ]; then
  cmake -S "$root" -B "$root/build-release" -DCMAKE_BUILD_TYPE=Release -DHDRGPU_BUILD_TESTS=OFF \
    -DHDRGPU_BUILD_BENCHMARKS=OFF > /dev/null
  cmake --build "$root/build-release" -j "$(nproc 2>/dev/null || echo 2)" --target hdrgpu-convert > /dev/null
  host_convert="$root/build-release/tools/hdrgpu-convert/hdrgpu-convert"
fi
out="$build/smoke-convert"
rm -rf "$out"
mkdir -p "$out/target" "$out/host"
convert_matches() {
  "${run[@]}" "$build/tools/hdrgpu-convert/hdrgpu-convert" --format raw "$sample" -o "$out/target" &&
  "$host_convert" --format raw "$sample" -o "$out/host" > /dev/null &&
  local a="$out/target/vearutop_small_uhdr.rgba" b="$out/host/vearutop_small_uhdr.rgba" &&
  [ -s "$a" ] && [ "$(stat -c %s "$a")" = "$(stat -c %s "$b")" ] &&
  { cmp -l "$a" "$b" || true; } | awk -v n="$(stat -c %s "$a")" '
    function octal(s,   v, i) { v = 0; for (i = 1; i <= length(s); i++) v = v * 8 + substr(s, i, 1); return v }
    { d = octal($2) - octal($3); if (d < 0) d = -d; if (d > max) max = d; count++ }
    END { max += 0; count += 0
          printf "converter: %d bytes, %d differ from the build machine'"'"'s, by at most %d\n", n, count, max
          exit max > 2 }'
}
start=$SECONDS
if convert_matches > "$build/smoke-convert.log" 2>&1; then
  passed=$((passed + 1)); echo "PASS convert-small-sample ($((SECONDS - start)) s)"
else
  failed=$((failed + 1)); echo "FAIL convert-small-sample ($((SECONDS - start)) s)"
fi
grep -E '^(converter:|converted)' "$build/smoke-convert.log" | sed 's/^/    /' || tail -n 20 "$build/smoke-convert.log"

echo "== $arch smoke under qemu: $passed passed, $failed failed =="
[ "$failed" = 0 ]
