#!/usr/bin/env bash
# Builds and runs the benchmark suite, then writes
#   benchmarks/results/latest.json  (Google Benchmark JSON, every executable's
#                                    runs in one file)
#   benchmarks/results/latest.md    (a table per workload)
#   benchmarks/results/stages.svg   (the stage table as a bar chart,
#                                    benchmarks/stage-chart.py)
# and, for the converter as a whole process, a table of every sample
# photograph (HDRGPU_SAMPLES_DIR, default ../shared/samples beside the
# repository): `hdrgpu-convert PHOTO -o DIR --format raw` run 5 times, median
# wall time, CPU time and peak resident memory (wait4's rusage), after one
# untimed run.
#
#   benchmarks/run-benchmarks.sh [build-dir]     (default: build-bench)
#
# The build is a Release build of the benchmarks alone (tests off); the
# benchmark executables are compiled with -O2 in any build type. llvmpipe
# uses LP_NUM_THREADS threads (default: one per core); set it in the
# environment to change that. The whole run takes a few minutes on two cores.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build-bench}
jobs=$(nproc 2>/dev/null || echo 2)
results="$root/benchmarks/results"

if ! command -v python3 >/dev/null 2>&1; then
  echo "Installing python3 (for the report)"
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ] && command -v sudo >/dev/null 2>&1; then
    sudo_cmd=(sudo)
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends python3
fi

executables=(picture_benchmark stage_benchmark limits_benchmark variant_benchmark cpu_baseline_benchmark output_copy_benchmark)
samples=${HDRGPU_SAMPLES_DIR:-$root/../shared/samples}
process_runs=5

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DHDRGPU_BUILD_BENCHMARKS=ON -DHDRGPU_BUILD_TESTS=OFF
cmake --build "$build" -j "$jobs" --target "${executables[@]}" hdrgpu-convert hdrgpu-process-stats

mkdir -p "$results"
runs=$(mktemp -d)
trap 'rm -rf "$runs"' EXIT
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for exe in "${executables[@]}"; do
  echo "== $exe"
  "$build/benchmarks/$exe" --benchmark_out="$runs/$exe.json" --benchmark_out_format=json
done

# The converter as a whole process, photo by photo. The untimed first run
# warms the page cache and gives the converter's own line (size or refusal).
mkdir -p "$runs/process" "$runs/out"
photos=()
if [ -d "$samples" ]; then
  for photo in "$samples"/*.jpg "$samples"/*.jpeg "$samples"/*.JPG; do
    [ -f "$photo" ] && photos+=("$photo")
  done
fi
if [ ${#photos[@]} -eq 0 ]; then
  echo "No sample photographs in $samples: no whole-process table"
fi
convert="$build/tools/hdrgpu-convert/hdrgpu-convert"
for i in "${!photos[@]}"; do
  photo=${photos[$i]}
  echo "== hdrgpu-convert $(basename "$photo") --format raw ($process_runs runs)"
  "$convert" "$photo" -o "$runs/out" --format raw > "$runs/process/$i.line" 2>&1 || true
  "$build/benchmarks/hdrgpu-process-stats" --runs "$process_runs" -- \
    "$convert" "$photo" -o "$runs/out" --format raw > "$runs/process/$i.json"
  printf '%s\n' "$photo" > "$runs/process/$i.photo"
  rm -f "$runs/out"/*
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

python3 - "$runs" "$results" "$load_before" "$load_after" "${executables[@]}" <<'PYTHON'
import datetime
import json
import os
import re
import sys

runs_dir, results_dir, load_before, load_after = sys.argv[1:5]
executables = sys.argv[5:]

# Merge: the first file's context (with every custom key seen), all runs.
merged = {"context": {}, "benchmarks": []}
for exe in executables:
    with open(os.path.join(runs_dir, exe + ".json")) as f:
        data = json.load(f)
    for key, value in data.get("context", {}).items():
        merged["context"].setdefault(key, value)
    for run in data.get("benchmarks", []):
        run["executable"] = exe
        merged["benchmarks"].append(run)
merged["context"]["executable"] = executables
merged["context"]["load_average_before_run"] = load_before
merged["context"]["load_average_after_run"] = load_after

# The converter as a whole process: one entry per photograph.
process = []
process_dir = os.path.join(runs_dir, "process")
index = 0
while os.path.exists(os.path.join(process_dir, f"{index}.json")):
    with open(os.path.join(process_dir, f"{index}.photo")) as f:
        photo = f.read().strip()
    with open(os.path.join(process_dir, f"{index}.line")) as f:
        line = f.read()
    with open(os.path.join(process_dir, f"{index}.json")) as f:
        stats = json.load(f)
    entry = {"photo": os.path.basename(photo), "file_bytes": os.path.getsize(photo),
             "command": "hdrgpu-convert PHOTO -o DIR --format raw"}
    size = re.search(r"\((\d+)x(\d+), ", line)
    if size:
        entry["width"], entry["height"] = int(size.group(1)), int(size.group(2))
        entry["result"] = "converted"
    else:
        refused = re.search(r"refused [^:]*: (.*)", line)
        entry["result"] = "refused: " + refused.group(1).strip() if refused else "failed"
    entry.update(stats)
    process.append(entry)
    index += 1
merged["whole_process"] = process
with open(os.path.join(results_dir, "latest.json"), "w") as f:
    json.dump(merged, f, indent=2)
    f.write("\n")

ctx = merged["context"]
UNIT = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}

def ms(run):
    return run["real_time"] * UNIT[run.get("time_unit", "ns")]

# "<group>/<stage>/<workload>/iterations:n/real_time" -> (group, stage, workload):
# (best ms, median ms, iterations), from the per-iteration counters where
# there are some, else Google Benchmark's mean.
times = {}
for run in merged["benchmarks"]:
    if run.get("error_occurred"):
        continue
    parts = run["name"].split("/")
    if len(parts) >= 3 and parts[0] in ("picture", "stage", "limit", "cpu"):
        best = run.get("best_ms", ms(run))
        median = run.get("median_ms", ms(run))
        times[(parts[0], parts[1], parts[2])] = (best, median, run.get("iterations", 0))

WORKLOADS = [
    ("phone12mp_4k", "12 MP phone photo to 3840 × 2160",
     "4032 × 3024 main image, 1008 × 756 single-channel gain map (its U and V planes flat 128), no offsets",
     4032 * 3024, 1008 * 756, 3840, 2160),
    ("phone12mp_1080p", "12 MP phone photo to 1920 × 1080",
     "4032 × 3024 main image, 1008 × 756 single-channel gain map (its U and V planes flat 128), no offsets",
     4032 * 3024, 1008 * 756, 1920, 1080),
    ("camera24mp_4k", "24 MP camera photo to 3840 × 2160",
     "6000 × 4000 main image, 6000 × 4000 three-channel gain map, offsets 1/64",
     6000 * 4000, 6000 * 4000, 3840, 2160),
    ("camera24mp_halfgain_4k", "24 MP camera photo, half-size gain map, to 3840 × 2160",
     "6000 × 4000 main image, 3000 × 2000 three-channel gain map, offsets 1/64",
     6000 * 4000, 3000 * 2000, 3840, 2160),
]

ROWS = [
    ("picture", "direct", "**Whole picture, direct** (`GpuGenerateHdr(&info)`)"),
    ("picture", "streaming", "**Whole picture, streaming cycle** (6 × Begin/write/End, `SetHdrInfo`, `GpuGenerateHdr()`)"),
    ("picture", "streaming_library", "Whole picture, streaming cycle, the library's calls alone (the host's copies into the buffers left out)"),
    ("picture", "direct_cold", "Whole picture, direct, cold (`Init` + first picture + `Destroy`)"),
    ("stage", "settings", "Stage: settings read (`LoadSettings`)"),
    ("stage", "upload_direct", "Stage: upload, direct (`UpdateTextures`: 6 × glTexImage2D + APL)"),
    ("stage", "upload_direct_fresh", "Stage: upload, direct, into new textures (a first picture: llvmpipe allocates and clears them)"),
    ("stage", "reserve", "Stage: `GpuGenerateHdrReserveTextures` (storage made ahead, e.g. beside the host's decoder)"),
    ("stage", "upload_direct_reserved", "Stage: upload, direct, into reserved storage (the copies and the APL only)"),
    ("stage", "upload_streaming", "Stage: upload, streaming (6 × Begin / memcpy / End)"),
    ("stage", "intake_streaming", "Stage: metadata intake, streaming (`SetHdrInfo`: new surface, buffers re-mapped)"),
    ("stage", "constants", "Stage: constants (`UpdateUniform`)"),
    ("stage", "draw", "Stage: draw up to glFinish"),
    ("stage", "copy", "Stage: copy into the surface, one pass"),
    ("stage", "draw_into_surface", "Stage: `Draw` as the library runs it (constants, specialised program, draw and copy in ~2 MiB bands)"),
    ("stage", "draw_into_surface_one_pass", "Stage: the same `Draw` with the whole output as one band"),
    ("sum", "direct", "Sum of the direct stages (settings + upload + constants + draw + copy)"),
    ("sum", "streaming", "Sum of the streaming stages (upload + intake + constants + draw + copy)"),
    ("limit", "passthrough", "Limit: pass-through shader, same planes and framebuffer"),
    ("limit", "passthrough_four", "Limit: pass-through of the four planes a single-channel gain map's program reads"),
    ("limit", "raster", "Limit: no plane read (rasterise and write the output)"),
    ("limit", "memcpy", "Limit: memcpy of the bytes moved"),
    ("cpu", "model", "CPU model of the tests, 1 thread, -O2"),
]
SUMS = {
    "direct": [("stage", s) for s in ("settings", "upload_direct", "constants", "draw", "copy")],
    "streaming": [("stage", s) for s in ("upload_streaming", "intake_streaming", "constants", "draw", "copy")],
}

def fmt_ms(v):
    if v >= 100:
        return f"{v:.0f}"
    if v >= 10:
        return f"{v:.1f}"
    if v >= 0.1:
        return f"{v:.2f}"
    return f"{v:.4f}"

def fmt_ratio(v):
    if v >= 10:
        return f"{v:.0f}×"
    if v >= 0.1:
        return f"{v:.2f}×"
    return f"{v:.4f}×"

def fmt_rate(v):
    if v >= 1000:
        return f"{v:,.0f}"
    if v >= 10:
        return f"{v:.1f}"
    return f"{v:.2f}"

lp = ctx.get("llvmpipe_threads", "?")
date = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
lines = [
    "# Benchmark results",
    "",
    f"- Date: {date}",
    f"- Machine: {ctx.get('cpu_model', '?')}, {ctx.get('cpu_cores', ctx.get('num_cpus', '?'))} cores"
    f" ({ctx.get('mhz_per_cpu', '?')} MHz), load average (1, 5, 15 min) before the run: {load_before}, after: {load_after}"
    " (other work on the machine slows the GPU rows, which llvmpipe runs on every core)",
    f"- Driver: {ctx.get('gl_renderer', '?')} ({ctx.get('gl_version', '?')}), llvmpipe threads: {lp}",
    "- Build: Release (`benchmarks/run-benchmarks.sh`), benchmarks compiled with -O2; Google Benchmark,"
    " wall-clock time per picture (llvmpipe renders on threads of its own), after one untimed warm-up"
    " picture",
    "- Each row is timed n times: *best* is the fastest of the n (the least disturbed by other work on"
    " the machine), *median* the middle one. Output MP/s, the sums and the ratios use the best times."
    " Output MP/s is output pixels per second of wall-clock time (a stage's rate is what the whole"
    " picture would reach if that stage were all there was); the ratios divide this row's time by the"
    " pass-through shader's and by the memcpy's for the same workload.",
    "",
]
for key, title, planes, main_px, gain_px, ow, oh in WORKLOADS:
    in_bytes = 3 * main_px + 3 * gain_px
    out_bytes = ow * oh * 4
    mp = ow * oh / 1e6
    lines += [
        f"## {title}",
        "",
        f"{planes}. Bytes moved per picture: {(in_bytes + out_bytes) / 1e6:.1f} MB"
        f" ({in_bytes / 1e6:.1f} MB of input planes + {out_bytes / 1e6:.1f} MB of RGBA8 output surface).",
        "",
        "| Mode / stage | ms per picture (best) | median ms | n | Output MP/s | × pass-through | × memcpy |",
        "|---|---:|---:|---:|---:|---:|---:|",
    ]
    pass_ms = times.get(("limit", "passthrough", key), (None,))[0]
    copy_ms = times.get(("limit", "memcpy", key), (None,))[0]
    for group, stage, label in ROWS:
        if group == "sum":
            parts = [times.get((g, s, key)) for g, s in SUMS[stage]]
            if any(p is None for p in parts):
                continue
            value = sum(p[0] for p in parts)
            median, count = sum(p[1] for p in parts), "–"
        else:
            found = times.get((group, stage, key))
            if found is None:
                continue
            value, median, count = found
        if group == "limit" and stage == "memcpy":
            label = f"Limit: memcpy of {(in_bytes + out_bytes) / 1e6:.1f} MB (1 thread)"
        rate = mp / (value / 1e3) if value > 0 else float("inf")
        r_pass = fmt_ratio(value / pass_ms) if pass_ms else "–"
        r_copy = fmt_ratio(value / copy_ms) if copy_ms else "–"
        lines.append(f"| {label} | {fmt_ms(value)} | {fmt_ms(median)} | {count} | {fmt_rate(rate)}"
                     f" | {r_pass} | {r_copy} |")
    lines.append("")

if process:
    lines += [
        "## Whole process: the converter on each sample photograph",
        "",
        f"`hdrgpu-convert PHOTO -o DIR --format raw` (the default direct mode, output at the photo's full"
        f" size), each"
        f" run a new process: wall time from start to exit, CPU time (user + system, every thread; it moves"
        f" much less than the wall time when other work shares the cores) and the process's peak resident"
        f" memory (`wait4` rusage), median of {len(process[0]['runs'])} runs after one untimed run.",
        "",
        "| Photo | Output | Result | Wall s (median) | Wall s (best) | CPU s (median) | Peak RSS MiB (median) |",
        "|---|---|---|---:|---:|---:|---:|",
    ]
    for e in process:
        out = f"{e['width']} × {e['height']} ({e['width'] * e['height'] / 1e6:.1f} MP)" if "width" in e else "–"
        best = min(r["wall_s"] for r in e["runs"])
        lines.append(f"| {e['photo']} | {out} | {e['result']} | {e['median_wall_s']:.3f} | {best:.3f}"
                     f" | {e['median_cpu_s']:.3f} | {e['median_maxrss_kib'] / 1024:.0f} |")
    lines.append("")

# The surface-copy micro-benchmark, as it reports itself.
copies = [r for r in merged["benchmarks"] if r.get("executable") == "output_copy_benchmark"
          and not r.get("error_occurred")]
if copies:
    lines += ["## Output copy micro-benchmark", "",
              "| Benchmark | ms | GB/s |", "|---|---:|---:|"]
    for r in copies:
        name = re.sub(r"/real_time$", "", r["name"])
        gbs = r.get("bytes_per_second", 0) / 1e9
        lines.append(f"| `{name}` | {fmt_ms(ms(r))} | {gbs:.2f} |")
    lines.append("")

lines += ["Raw results: `benchmarks/results/latest.json` (Google Benchmark JSON).", ""]
with open(os.path.join(results_dir, "latest.md"), "w") as f:
    f.write("\n".join(lines))
print("\n".join(lines))
PYTHON
python3 "$root/benchmarks/stage-chart.py" "$results/latest.json" "$results/stages.svg"
echo "Wrote $results/latest.json, $results/latest.md and $results/stages.svg"
