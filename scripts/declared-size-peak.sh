#!/usr/bin/env bash
# Peak memory of hdrgpu-convert on files that claim more than they hold: a
# sample gain-map JPEG whose primary frame header, or whose gain map's frame
# header, is rewritten to declare 16384 x 16384. Both must be refused; the
# peak resident size is printed for each (needs /usr/bin/time, package
# "time").
#   scripts/declared-size-peak.sh <hdrgpu-convert> <work-dir>
set -euo pipefail
convert=$1
work=$2
mkdir -p "$work"
"$convert" --make-sample "$work/small.jpg" --sample-size 960x540 >/dev/null
"$convert" --make-sample "$work/large.jpg" --sample-size 8192x8192 >/dev/null

# Rewrites the frame header (SOF0..SOF2) of the n-th codestream in a file.
patch() {
  python3 - "$1" "$2" "$3" <<'PY'
import struct, sys
src, dst, which = sys.argv[1], sys.argv[2], int(sys.argv[3])
data = bytearray(open(src, 'rb').read())
pos, seen = 0, -1
while True:
    pos = data.index(b'\xff\xd8', pos)
    seen += 1
    if seen == which:
        break
    # Skip this codestream: walk its segments to SOS, then its entropy data to EOI.
    p = pos + 2
    while True:
        marker = data[p + 1]
        length = struct.unpack('>H', data[p + 2:p + 4])[0]
        p += 2 + length
        if marker == 0xDA:
            break
    while not (data[p] == 0xFF and data[p + 1] == 0xD9):
        p += 1
    pos = p + 2
p = pos + 2
while True:
    marker = data[p + 1]
    length = struct.unpack('>H', data[p + 2:p + 4])[0]
    if marker in (0xC0, 0xC1, 0xC2):
        data[p + 5:p + 9] = struct.pack('>HH', 16384, 16384)
        break
    p += 2 + length
open(dst, 'wb').write(data)
PY
}
patch "$work/small.jpg" "$work/primary-16384.jpg" 0
patch "$work/large.jpg" "$work/gainmap-16384.jpg" 1

for f in primary-16384 gainmap-16384; do
  status=0
  /usr/bin/time -v "$convert" "$work/$f.jpg" -o "$work/out" >"$work/$f.out" 2>"$work/$f.err" || status=$?
  peak=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/$f.err")
  echo "$f.jpg ($(stat -c %s "$work/$f.jpg") bytes): exit $status, peak $((peak / 1024)) MB"
  grep -m1 '^refused' "$work/$f.err" || true
done
