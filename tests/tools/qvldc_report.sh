#!/usr/bin/env bash
# The tuner's report: a 50-frame batch of the sample scene with varied people (none to three,
# near the centre, the borders and the corners) goes through --batch --report; the page is then
# checked against the batch's summary.csv (qvldc_report_check.py). The progress shows as plain
# lines without a terminal and as a bar on one.
# usage: qvldc_report.sh QVLDC CONFIG WORKDIR
set -euo pipefail
Q=$1
CONFIG=$2
W=$3
HERE=$(cd "$(dirname "$0")" && pwd)
rm -rf "$W"
mkdir -p "$W"

"$Q" --render-sample "$W/scene" --config "$CONFIG" --size 640x480 --frames 50 >/dev/null
# The report in its own directory, so that its links to the pictures are relative paths across
# directories (and the dump names, with blanks between faces, get escaped).
"$Q" --batch "$W/scene/dumps" --config "$CONFIG" --out-dir "$W/pictures" --report "$W/report/batch.html" \
  --quiet >"$W/out" 2>"$W/progress"
python3 "$HERE/qvldc_report_check.py" "$W/report/batch.html" "$W/pictures/summary.csv" 50

# Each dump is a capture of its own: the last frame alone gives the picture it gave in the batch
# (a face mesh must not carry over from the frame before); with --stream it may.
last=$(cd "$W/scene/dumps" && ls -- *_org.yuv | sort | tail -n 1)
mkdir -p "$W/alone"
cp -- "$W/scene/dumps/$last" "$W/alone/"
"$Q" --batch "$W/alone" --config "$CONFIG" --out-dir "$W/alone_out" --quiet >/dev/null 2>&1
cmp -- "$W/pictures/${last%.yuv}_after.png" "$W/alone_out/${last%.yuv}_after.png"

lines=$(grep -c '; [0-9]*/50, [0-9.]* frames/s, [0-9]*:[0-9][0-9] left$' "$W/progress" || true)
if [ "$lines" != 50 ]; then
  echo "expected 50 plain progress lines with rate and time left, found $lines:"
  head -5 "$W/progress"
  exit 1
fi

# On a terminal (script(1) gives the run one): a bar redrawn in place, ending at the full count.
if command -v script >/dev/null 2>&1; then
  "$Q" --render-sample "$W/tty_scene" --config "$CONFIG" --size 640x480 --frames 3 >/dev/null
  script -qec "'$Q' --batch '$W/tty_scene/dumps' --config '$CONFIG' --out-dir '$W/tty_out' --quiet" /dev/null \
    >"$W/tty" </dev/null
  if ! grep -q $'\r\033\\[K' "$W/tty" || ! grep -q '\[#*\] 3/3, [0-9.]* frames/s, 0:00 left' "$W/tty"; then
    echo "no progress bar on a terminal:"
    cat -v "$W/tty" | head -20
    exit 1
  fi
  echo "progress: 50 plain lines, and a bar on a terminal"
else
  echo "progress: 50 plain lines (no script(1) here to try a terminal)"
fi
