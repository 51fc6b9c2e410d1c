#!/usr/bin/env bash
# Makes the README's pictures of the synthetic sample in docs/:
#   docs/sample-sdr.png        the SDR primary image (decoded with djpeg)
#   docs/sample-panel.png      the library's 8-bit output (the panel signal)
#   docs/sample-hdr-pq.png     the same rendition as a 16-bit PQ PNG with
#                              cICP, which HDR-capable browsers show as HDR
# with hdrgpu-convert from a build directory (built when missing).
#   scripts/make-readme-pictures.sh [build-dir]     (default: build)
# Needs djpeg (libjpeg-turbo-progs) and python3.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$root/$build ;; esac
convert=$build/tools/hdrgpu-convert/hdrgpu-convert
size=480x270

if ! command -v djpeg >/dev/null 2>&1; then
  echo "djpeg is missing: apt-get install libjpeg-turbo-progs" >&2
  exit 1
fi
if [ ! -x "$convert" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
  cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target hdrgpu-convert
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
docs=$root/docs
mkdir -p "$docs"

"$convert" --make-sample "$work/sample.jpg" --sample-size "$size"
# djpeg decodes the first image of the file: the primary.
djpeg -pnm -outfile "$work/sdr.ppm" "$work/sample.jpg"
python3 - "$work/sdr.ppm" "$docs/sample-sdr.png" <<'PYTHON'
# Binary PPM (P6, 8-bit) to an RGB PNG with an sRGB chunk, standard library only.
import struct
import sys
import zlib

data = open(sys.argv[1], "rb").read()
fields, pos = [], 0
while len(fields) < 4:
    while data[pos:pos + 1].isspace():
        pos += 1
    if data[pos:pos + 1] == b"#":
        pos = data.index(b"\n", pos) + 1
        continue
    end = pos
    while not data[end:end + 1].isspace():
        end += 1
    fields.append(data[pos:end])
    pos = end
pos += 1
if fields[0] != b"P6" or int(fields[3]) != 255:
    sys.exit("not an 8-bit binary PPM")
w, h = int(fields[1]), int(fields[2])
pixels = data[pos:pos + w * h * 3]
raw = b"".join(b"\x00" + pixels[y * w * 3:(y + 1) * w * 3] for y in range(h))

def chunk(kind, body):
    return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF)

png = (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0)) +
       chunk(b"sRGB", b"\x00") + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))
open(sys.argv[2], "wb").write(png)
PYTHON
"$convert" --png-level 9 "$work/sample.jpg" -o "$work/panel"
cp "$work/panel/sample.png" "$docs/sample-panel.png"
"$convert" --format pq-png --png-level 9 "$work/sample.jpg" -o "$work/pq"
cp "$work/pq/sample.png" "$docs/sample-hdr-pq.png"
ls -l "$docs"/sample-*.png
