#!/usr/bin/env bash
# Builds the library, its tests and tools for the host (x86-64, NEON through SIMDe), 32-bit ARM
# and 64-bit ARM, and runs every suite; the ARM suites run under qemu-user.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD_DIR:-build}
passed=0
failed=0

run_suite() {   # name, build dir, cmake args...
  local name=$1 dir=$2
  shift 2
  echo "== $name =="
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
  if (cd "$dir" && ctest -j "$JOBS" --output-on-failure --timeout 900); then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
}

run_suite host "$BUILD/host" -DLDC_BUILD_BENCH=ON -DLDC_BUILD_TOOLS=ON
run_suite armhf "$BUILD/armhf" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf-linux.cmake
run_suite arm64 "$BUILD/arm64" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux.cmake
if [ -f scripts/sanitize.sh ]; then
  if bash scripts/sanitize.sh "$BUILD/sanitize"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
fi
if bash scripts/tsan.sh "$BUILD/tsan"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi

echo "suites: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
