#!/usr/bin/env python3
"""Draws the stage table of a benchmark run as an SVG bar chart.

    benchmarks/stage-chart.py RESULTS.json OUT.svg

One panel per workload, one horizontal bar per stage (best time of the run,
milliseconds, linear scale per panel, the value written beside each bar);
the whole picture and the pass-through shader are drawn for scale in another
colour. Plain SVG text, no plotting library.
"""
import json
import sys
from xml.sax.saxutils import escape

WORKLOADS = [
    ("phone12mp_4k", "12 MP phone photo → 3840 × 2160"),
    ("phone12mp_1080p", "12 MP phone photo → 1920 × 1080"),
    ("camera24mp_4k", "24 MP camera photo → 3840 × 2160"),
    ("camera24mp_halfgain_4k", "24 MP camera photo, half-size gain map → 3840 × 2160"),
]
# (group, stage, label, kind): kind "stage" is a part of a picture, "whole"
# a whole picture or a limit, drawn for scale.
BARS = [
    ("picture", "direct", "Whole picture, direct", "whole"),
    ("picture", "streaming", "Whole picture, streaming cycle", "whole"),
    ("stage", "settings", "Settings read", "stage"),
    ("stage", "upload_direct", "Upload, direct", "stage"),
    ("stage", "upload_streaming", "Upload, streaming", "stage"),
    ("stage", "intake_streaming", "Metadata intake, streaming", "stage"),
    ("stage", "constants", "Constants", "stage"),
    ("stage", "draw", "Draw up to glFinish", "stage"),
    ("stage", "copy", "Copy into the surface", "stage"),
    ("limit", "passthrough", "Limit: pass-through shader", "whole"),
    ("limit", "memcpy", "Limit: memcpy of the bytes moved", "whole"),
]
COLOURS = {"stage": "#3b7dd8", "whole": "#9aa4b1"}
UNIT = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}

LABEL_W, BAR_W, VALUE_W = 250, 400, 90
ROW_H, BAR_H, TITLE_H, GAP = 20, 13, 28, 14
WIDTH = LABEL_W + BAR_W + VALUE_W + 20


def best_ms(run):
    if "best_ms" in run:
        return run["best_ms"]
    return run["real_time"] * UNIT[run.get("time_unit", "ns")]


def fmt(v):
    if v >= 100:
        return f"{v:.0f} ms"
    if v >= 10:
        return f"{v:.1f} ms"
    if v >= 0.1:
        return f"{v:.2f} ms"
    return f"{v * 1000:.1f} µs"


def main(src, dst):
    with open(src) as f:
        data = json.load(f)
    times = {}
    for run in data.get("benchmarks", []):
        if run.get("error_occurred"):
            continue
        parts = run["name"].split("/")
        if len(parts) >= 3:
            times[(parts[0], parts[1], parts[2])] = best_ms(run)
    ctx = data.get("context", {})
    out = []
    y = 10
    header = (f"Milliseconds per picture (best of the run), {ctx.get('gl_renderer', '?')}, "
              f"{ctx.get('cpu_model', '?')}, {ctx.get('cpu_cores', ctx.get('num_cpus', '?'))} cores")
    out.append(f'<text x="10" y="{y + 14}" class="h">{escape(header)}</text>')
    y += 30
    for key, title in WORKLOADS:
        bars = [(label, kind, times[(g, s, key)]) for g, s, label, kind in BARS if (g, s, key) in times]
        if not bars:
            continue
        top = max(v for _, _, v in bars)
        out.append(f'<text x="10" y="{y + 18}" class="t">{escape(title)}</text>')
        y += TITLE_H
        for label, kind, value in bars:
            w = 0 if top <= 0 else max(1.0, BAR_W * value / top)
            out.append(f'<text x="{LABEL_W - 8}" y="{y + BAR_H - 2}" class="l">{escape(label)}</text>')
            out.append(f'<rect x="{LABEL_W}" y="{y}" width="{w:.1f}" height="{BAR_H}" fill="{COLOURS[kind]}"/>')
            out.append(f'<text x="{LABEL_W + w + 6:.1f}" y="{y + BAR_H - 2}" class="v">{fmt(value)}</text>')
            y += ROW_H
        y += GAP
    legend = ("blue: a stage of the picture; grey: the whole picture and the machine's limits, for scale. "
              "Source: benchmarks/results/latest.json")
    out.append(f'<text x="10" y="{y + 10}" class="n">{escape(legend)}</text>')
    y += 24
    svg = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{y}" viewBox="0 0 {WIDTH} {y}">',
        "<style>text{font-family:sans-serif;fill:#222}.h{font-size:13px;font-weight:bold}"
        ".t{font-size:13px;font-weight:bold}.l{font-size:11px;text-anchor:end}.v{font-size:11px}"
        ".n{font-size:10px;fill:#555}</style>",
        f'<rect width="{WIDTH}" height="{y}" fill="#fff"/>',
    ] + out + ["</svg>", ""]
    with open(dst, "w", encoding="utf-8") as f:
        f.write("\n".join(svg))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: stage-chart.py RESULTS.json OUT.svg")
    main(sys.argv[1], sys.argv[2])
