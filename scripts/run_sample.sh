#!/usr/bin/env bash
# The sample scene end to end: installs what is missing, builds the library with the tuning tool,
# renders the project's sample portrait (two people near the borders, straight architecture,
# recorded through the sample configuration's wide-angle lens) at 4000 x 3000 and 640 x 480,
# corrects both with the library and writes what a tuner looks at into out/:
#   out/qvldc_<size>_before.png   the frame the library received
#   out/qvldc_<size>_after.png    the library's output
#   out/qvldc_<size>_overlay.png  faces, valid areas, the line check's lines and the decision
#   out/qvldc_<size>.log          the library's log and the decision, as printed
#   out/qvldc_640x480_detected_overlay.png  the same with the faces of OpenCV's detector
#   out/batch/                    the same two frames as debug dumps through --batch
#   out/methods/                  the 4000 x 3000 sample through each method, 400 pixels wide,
#                                 and what qvldc measured of each (methods.txt)
#   out/report.html               the report of a 50-frame batch of the scene with varied people
#                                 (640 x 480; SAMPLE_BATCH_SIZE=4000x3000 for full-size frames)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

BUILD=build/sample
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DLDC_BUILD_TOOLS=ON -DLDC_BUILD_TESTS=OFF
cmake --build "$BUILD" -j"$(nproc)" --target qvldc
QVLDC="$BUILD/tools/qvldc/qvldc"
CONFIG=configs/qvldc_sample.xml

mkdir -p out
rm -rf out/sample out/batch
for SIZE in 4000x3000 640x480; do
  echo "== $SIZE: rendering the sample scene"
  "$QVLDC" --render-sample out/sample --config "$CONFIG" --size "$SIZE"
  echo "== $SIZE: correcting it"
  "$QVLDC" --in "out/sample/sample_$SIZE.png" --config "$CONFIG" \
    --faces-file "out/sample/sample_${SIZE}_faces.txt" \
    --before-png "out/qvldc_${SIZE}_before.png" --out-png "out/qvldc_${SIZE}_after.png" \
    --overlay "out/qvldc_${SIZE}_overlay.png" 2>&1 | tee "out/qvldc_$SIZE.log"
done

echo "== 640x480 again, the faces found by OpenCV's detector instead of given"
"$QVLDC" --in out/sample/sample_640x480.png --config "$CONFIG" --detect-faces --quiet \
  --overlay out/qvldc_640x480_detected_overlay.png

echo "== the same frames as debug dumps, in batch"
"$QVLDC" --batch out/sample/dumps --config "$CONFIG" --out-dir out/batch --quiet

echo "== each method on the 4000x3000 sample (the README's pictures)"
# The configuration corrects faces by the face mesh (the mesh row). The other paths are forced
# with --set: the face homography (FDCMethod 0) at the degree it was tuned at; with it a budget of
# 100 % makes no face fit (lens remap alone) and a BendValue no line reaches lets the line check
# pass (global correction).
rm -rf out/methods
mkdir -p out/methods
SAMPLE=(--in out/sample/sample_4000x3000.png --config "$CONFIG" --faces-file out/sample/sample_4000x3000_faces.txt
        --quiet --png-width 400)
HOMOGRAPHY=(--set FaceDistortionCorrection/FDCMethod=0 --set FaceDistortionCorrection/CorrectionDegree=0.15)
: >out/methods/methods.txt
method() {   # name, then the options that force it
  local name=$1
  shift
  echo "-- $name" >>out/methods/methods.txt
  "$QVLDC" "${SAMPLE[@]}" --out-png "out/methods/$name.png" "$@" 2>/dev/null |
    grep -E '^(path|field of view|face mesh|line check|zoom|edge|faces in)' >>out/methods/methods.txt
}
method lens "${HOMOGRAPHY[@]}" --set FaceDistortionCorrection/FOVLost=100
method face "${HOMOGRAPHY[@]}" --before-png out/methods/before.png --overlay out/methods/face_overlay.png
method global "${HOMOGRAPHY[@]}" --set DistortionCorrection1/BendValue=100000
method mesh --overlay out/methods/mesh_overlay.png
cat out/methods/methods.txt

BATCH_SIZE=${SAMPLE_BATCH_SIZE:-640x480}
echo "== a 50-frame batch of the scene with varied people ($BATCH_SIZE), and its report"
rm -rf out/varied
"$QVLDC" --render-sample out/varied --config "$CONFIG" --size "$BATCH_SIZE" --frames 50
"$QVLDC" --batch out/varied/dumps --config "$CONFIG" --out-dir out/varied/pictures --report out/report.html --quiet

echo "Written: out/qvldc_4000x3000_{before,after,overlay}.png, out/qvldc_640x480_{before,after,overlay}.png,"
echo "         out/qvldc_640x480_detected_overlay.png, out/qvldc_*.log, out/batch/summary.csv,"
echo "         out/methods/*.png, out/report.html (open it in a browser; no network needed)"
