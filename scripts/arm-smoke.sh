#!/usr/bin/env bash
# A smoke run of an ARM build (scripts/build-target.sh armhf|arm64) under
# qemu-user with the target's own Mesa (llvmpipe on arm64, softpipe on armhf,
# see below): the records' layout, the engine's lifecycle, a picture in the
# direct mode and a streaming cycle of three pictures compared with the CPU
# model, and the converter on the small sample photograph (both modes)
# compared with the model. Mesa under qemu is slow: small pictures, a chosen
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
# The converter itself runs under qemu too (the test starts it through the launcher).
export HDRGPU_CONVERT_LAUNCHER="${run[*]}"
smoke convert-small-sample "$t/convert_photograph_tests" --gtest_filter='*vearutop_small_uhdr*'

echo "== $arch smoke under qemu: $passed passed, $failed failed =="
[ "$failed" = 0 ]
