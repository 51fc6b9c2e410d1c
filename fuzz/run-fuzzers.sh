#!/usr/bin/env bash
# Builds the fuzzers with clang (libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a while over a copy of its
# seed corpus. Fails when a fuzzer finds a crash; the crashing input is then
# in <build-dir>/fuzz-run/<fuzzer>/artifacts/.
#   fuzz/run-fuzzers.sh <build-dir> <seconds>
# e.g. fuzz/run-fuzzers.sh build-fuzz 60
# Needs clang and libclang-rt-14-dev (Debian 12) besides the usual build packages.
set -euo pipefail
if [ $# -ne 2 ]; then
  echo "usage: $0 <build-dir> <seconds>" >&2
  exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
build=$1
seconds=$2
jobs=$(nproc 2>/dev/null || echo 2)

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DHDRGPU_BUILD_FUZZERS=ON -DHDRGPU_BUILD_TESTS=OFF -DHDRGPU_BUILD_BENCHMARKS=OFF
cmake --build "$build" -j "$jobs" --target settings_file_fuzzer settings_file_fuzz_replay \
  gain_map_jpeg_fuzzer gain_map_jpeg_fuzz_replay public_api_fuzzer public_api_fuzz_replay

# Fuzzer name, seed corpus, dictionary ("-" for none), largest input, and
# optionally a folder of extra seeds copied in at run time when present (the
# gain-map JPEG fuzzer takes the sample photographs of ../shared/samples that
# fit). The public interface draws on llvmpipe: its programs are short.
fuzzers=(
  "settings_file_fuzzer $root/fuzz/corpus/settings_file $root/fuzz/settings_file.dict 4096"
  "gain_map_jpeg_fuzzer $root/fuzz/corpus/gain_map_jpeg $root/fuzz/gain_map_jpeg.dict 160000 $root/../shared/samples"
  "public_api_fuzzer $root/fuzz/corpus/public_api - 512"
)
# Mesa keeps a few allocations for the life of the process; the thread-local
# bookkeeping is left off as in the test suite (see CMakeLists.txt).
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0:intercept_tls_get_addr=0"
for entry in "${fuzzers[@]}"; do
  read -r name seeds dict max_len extra <<<"$entry"
  work=$(cd "$build" && pwd)/fuzz-run/$name
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp "$seeds"/* "$work/corpus/"
  if [ -n "$extra" ] && [ -d "$extra" ]; then
    find "$extra" -maxdepth 1 -type f -name '*.jpg' -size -"${max_len}c" -exec cp {} "$work/corpus/" \;
  fi
  echo "== $name: ${seconds} s over a copy of $seeds"
  status=0
  dict_option=()
  if [ "$dict" != "-" ]; then
    dict_option=(-dict="$dict")
  fi
  # -rss_limit_mb: the driver's and the sanitizers' memory, with room; a
  # plane the library should have refused would exceed it.
  "$build/fuzz/$name" "$work/corpus" "${dict_option[@]}" -max_total_time="$seconds" \
    -max_len="$max_len" -timeout=20 -rss_limit_mb=4096 \
    -artifact_prefix="$work/artifacts/" -print_final_stats=1 >"$work/fuzz.log" 2>&1 || status=$?
  tail -n 25 "$work/fuzz.log"
  if [ "$status" -ne 0 ] || ls "$work/artifacts" | grep -q .; then
    echo "== $name FAILED (status $status); inputs in $work/artifacts, log in $work/fuzz.log" >&2
    exit 1
  fi
  echo "== $name: no crash"
done
