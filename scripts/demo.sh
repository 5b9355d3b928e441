#!/usr/bin/env bash
# Builds the host tools and runs the demo; the pictures land in out/ (or the directory given).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
OUT=${1:-out}
mkdir -p "$OUT"
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=Release -DLDC_BUILD_TOOLS=ON >/dev/null
cmake --build build/host -j "$(nproc)" --target ldc_demo
./build/host/tools/ldc_demo/ldc_demo "$OUT"
