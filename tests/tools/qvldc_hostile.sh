#!/usr/bin/env bash
# qvldc against what a dump folder or a careless command line can hand it: truncated and
# mis-sized raw frames, damaged photos, photo headers declaring huge sizes, text named .png,
# garbage face files, directories, FIFOs, device links and dangling links, alone and mixed into
# a batch. Every run must end within seconds, without a signal, with a non-zero exit and exactly
# one "qvldc:" error line naming the offending file; a batch still processes its good frame.
# Usage: qvldc_hostile.sh QVLDC CONFIG WORKDIR
set -u
Q=$1
CONFIG=$2
W=$3
LIMIT_MS=5000
rm -rf "$W"
mkdir -p "$W/in"
cd "$W/in" || exit 1

"$Q" --render-sample "$W/sample" --config "$CONFIG" --size 640x480 >/dev/null 2>&1 || {
  echo "cannot render the sample"
  exit 1
}
PNG=$W/sample/sample_640x480.png
DUMP=$(ls "$W"/sample/dumps/*_org.yuv)

bytes() {   # hex digits -> raw bytes on stdout
  printf "$(sed 's/../\\x&/g' <<<"$1")"
}
crc32() {   # hex digits -> CRC-32 as 8 hex digits
  local crc=$((0xFFFFFFFF)) hex=$1 i k
  for ((i = 0; i < ${#hex}; i += 2)); do
    crc=$((crc ^ 0x${hex:i:2}))
    for k in 1 2 3 4 5 6 7 8; do
      crc=$(((crc >> 1) ^ (0xEDB88320 & -(crc & 1))))
    done
  done
  printf '%08x' $((crc ^ 0xFFFFFFFF))
}
png_with_size() {   # width height -> the sample with its header patched (checksum kept valid)
  local body
  body=$(printf '49484452%08x%08x0802000000' "$1" "$2")
  bytes "89504e470d0a1a0a0000000d${body}$(crc32 "$body")"
  tail -c +34 "$PNG"
}
jpeg_with_size() {  # width height -> a baseline JPEG header declaring that size, no scan
  bytes "ffd8ffe000104a46494600010100000100010000"
  bytes "ffc0001108$(printf '%04x%04x' "$2" "$1")03012200021101031101ffd9"
}

# Inputs that are not a frame of any kind; each is tried with and without --size.
head -c 1000 "$DUMP" >trunc.yuv
head -c -1 "$DUMP" >short.yuv
{ cat "$DUMP"; printf x; } >long.yuv
: >empty.yuv
truncate -s 3G huge.yuv
mkdir dir.yuv
mkfifo fifo.yuv
ln -s /dev/zero zero.yuv
ln -s "$W/nowhere" dangling.yuv
RAW="trunc.yuv short.yuv long.yuv empty.yuv huge.yuv dir.yuv fifo.yuv zero.yuv dangling.yuv missing.yuv"

# Photos that must be refused before or during decoding.
head -c $(($(stat -c %s "$PNG") / 2)) "$PNG" >trunc.png
head -c 33 "$PNG" >header_only.png
{ printf 'X'; tail -c +2 "$PNG"; } >bad_signature.png
{ head -c 29 "$PNG"; printf '\0\0\0\0'; tail -c +34 "$PNG"; } >bad_crc.png
png_with_size 60000 60000 >huge60000.png
png_with_size 2147483647 1 >wide2g.png
png_with_size 20000 20000 >huge20000.png
png_with_size 5002 4 >wide5002.png
png_with_size 0 0 >empty_size.png
jpeg_with_size 60000 60000 >huge60000.jpg
jpeg_with_size 65535 1 >wide65535.jpg
jpeg_with_size 640 0 >no_height.jpg
bytes ffd8 >soi_only.jpg
jpeg_with_size 640 480 | head -c 27 >cut_header.jpg
echo "not a picture" >text.png
echo "not a picture" >text.jpg
mkdir dir.png
mkfifo fifo.png
ln -s /dev/zero zero.png
ln -s "$W/nowhere" dangling.png
PHOTO="trunc.png header_only.png bad_signature.png bad_crc.png huge60000.png wide2g.png huge20000.png wide5002.png
       empty_size.png huge60000.jpg wide65535.jpg no_height.jpg soi_only.jpg cut_header.jpg text.png text.jpg
       dir.png fifo.png zero.png dangling.png missing.png"

# Face files, given with the good sample photo.
bytes "00ff10fe0a0d2c2c00313233" >garbage.faces
printf '1,2,30,40\nhello\n' >bad_line.faces
printf '1,2,3,99999999999\n' >overflow.faces
printf '10,10,5,5\n' >reversed.faces
yes 1,2,30,40 | head -c 2200000 >huge.faces
mkdir dir.faces
mkfifo fifo.faces
ln -s /dev/zero zero.faces
ln -s "$W/nowhere" dangling.faces
FACES="garbage.faces bad_line.faces overflow.faces reversed.faces huge.faces dir.faces fifo.faces zero.faces
       dangling.faces missing.faces"

# Face cascades for --detect-faces.
echo "<opencv_storage><cascade>garbage" >garbage.cascade
mkdir dir.cascade
mkfifo fifo.cascade
ln -s /dev/zero zero.cascade
CASCADES="garbage.cascade dir.cascade fifo.cascade zero.cascade"

# Configurations that are not files.
mkdir dir.xml
mkfifo fifo.xml
ln -s /dev/zero zero.xml
ln -s "$W/nowhere" dangling.xml
CONFIGS="dir.xml fifo.xml zero.xml dangling.xml missing.xml"

# A dump folder: one good frame among bad entries that carry dump names.
B=$W/batch
mkdir "$B" "$B/plain_subfolder"
cp "$DUMP" "$B/"
name() { echo "2026010${1}_000000_coord__ISO=100_org.yuv"; }
BATCH_BAD="$(name 1) $(name 2) $(name 3) $(name 4) $(name 5) $(name 6) $(name 7) $(name 8)"
head -c 1000 "$DUMP" >"$B/$(name 1)"
head -c -1 "$DUMP" >"$B/$(name 2)"
mkdir "$B/$(name 3)"
mkfifo "$B/$(name 4)"
ln -s /dev/zero "$B/$(name 5)"
ln -s "$W/nowhere" "$B/$(name 6)"
echo "not a frame" >"$B/$(name 7)"
truncate -s 3G "$B/$(name 8)"

mkfifo fifo.dir
echo "not a directory" >file.dir
ln -s /dev/zero zero.dir
ln -s "$W/nowhere" dangling.dir
DIRS="fifo.dir file.dir zero.dir dangling.dir missing.dir"

runs=0
inputs=0
bad=0
slowest=0
fail() {
  echo "FAIL $*"
  sed 's/^/    /' "$W/err" | head -20
  bad=$((bad + 1))
}
# run LABEL -- qvldc arguments; leaves rc, ms, $W/out and $W/err
run() {
  local label=$1 t0 t1
  shift 2
  t0=$(date +%s%N)
  timeout -k 1 10 "$Q" "$@" >"$W/out" 2>"$W/err"
  rc=$?
  t1=$(date +%s%N)
  ms=$(((t1 - t0) / 1000000))
  ((ms > slowest)) && slowest=$ms
  runs=$((runs + 1))
  if ((rc == 124 || rc == 137)); then
    fail "$label: hangs"
  elif ((rc >= 128)); then
    fail "$label: killed by signal $((rc - 128))"
  elif ((rc == 0)); then
    fail "$label: exit 0"
  elif ((ms > LIMIT_MS)); then
    fail "$label: took $ms ms"
  else
    return 0
  fi
  return 1
}
# One line "qvldc: ..." naming $2 in $W/err.
names_once() {
  local n
  n=$(grep '^qvldc:' "$W/err" | grep -cF -- "$2")
  if [ "$n" != 1 ] || [ "$(grep -c '^qvldc:' "$W/err")" -lt 1 ]; then
    fail "$1: $n error lines name $2"
    return 1
  fi
}
single() {   # label, offending file, qvldc arguments
  local label=$1 file=$2
  shift 2
  inputs=$((inputs + 1))
  run "$label" -- "$@" || return
  names_once "$label" "$file" || return
  if [ "$(grep -c '^qvldc:' "$W/err")" != 1 ]; then
    fail "$label: more than one qvldc: line"
    return
  fi
  echo "ok $label (exit $rc, $ms ms): $(grep '^qvldc:' "$W/err")"
}

for f in $RAW; do
  single "raw $f" "$f" --in "$W/in/$f" --config "$CONFIG" --quiet
  single "raw $f --size" "$f" --in "$W/in/$f" --config "$CONFIG" --size 640x480 --quiet
done
for f in $PHOTO; do
  single "photo $f" "$f" --in "$W/in/$f" --config "$CONFIG" --quiet
done
for f in $FACES; do
  single "faces $f" "$f" --in "$PNG" --faces-file "$W/in/$f" --config "$CONFIG" --quiet
done
for f in $CASCADES; do
  single "cascade $f" "$f" --in "$PNG" --detect-faces --cascade "$W/in/$f" --config "$CONFIG" --quiet
done
for f in $CONFIGS; do
  single "config $f" "$f" --in "$PNG" --config "$W/in/$f" --quiet
done
for f in $DIRS; do
  single "batch $f" "$f" --batch "$W/in/$f" --config "$CONFIG" --quiet
done
for size in "" "--size 640x480"; do
  rm -rf "$W/batch_out"
  inputs=$((inputs + 8))
  run "mixed batch $size" -- --batch "$B" --config "$CONFIG" --out-dir "$W/batch_out" $size --quiet || continue
  named=0
  for f in $BATCH_BAD; do
    names_once "mixed batch $size" "$f" && named=$((named + 1))
  done
  if [ "$(grep -c '^"' "$W/batch_out/summary.csv")" != 1 ] || ! ls "$W"/batch_out/*_after.png >/dev/null 2>&1; then
    fail "mixed batch $size: the good frame was not processed"
  else
    echo "ok mixed batch $size (exit $rc, $ms ms): $named bad entries reported and skipped, the good frame processed"
  fi
done

echo "qvldc hostile inputs: $inputs in $runs runs, $bad failed checks, slowest run $slowest ms"
[ "$bad" -eq 0 ] && rm -rf "$W"
