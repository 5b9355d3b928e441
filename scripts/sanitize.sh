#!/usr/bin/env bash
# Sanitizer run: builds everything with clang under AddressSanitizer and UndefinedBehaviorSanitizer,
# runs the whole unit-test binary with leak detection, then runs every libFuzzer target for a
# bounded time from its seeds. Any finding fails the script.
# Usage: scripts/sanitize.sh [builddir]   (FUZZ_SECONDS, JOBS override the defaults)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build/sanitize}
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-20}

# -O1 with line tables: the usual sanitizer trade-off between build time, speed and readable
# reports. The shared library takes the sanitizer runtime as a shared library, otherwise its
# --no-undefined link cannot resolve the instrumentation's symbols.
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DLDC_SANITIZE=ON -DLDC_CHECK_READS=ON -DLDC_BUILD_FUZZ=ON -DLDC_BUILD_TESTS=ON \
  -DCMAKE_SHARED_LINKER_FLAGS=-shared-libsan >/dev/null
cmake --build "$BUILD" -j "$JOBS"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=report_objects=1

echo "== unit tests under ASan/UBSan/LSan =="
"$BUILD/tests/ldc_tests" --gtest_brief=1
(cd "$BUILD" && ctest -R exported_symbols --output-on-failure)

# Every fuzzer is seeded with all hand-written corpora and the shipped configurations; new
# inputs go to a scratch corpus in the build tree, never into the sources.
seeds=()
for d in fuzz/corpus/*/ configs/ tests/configs/; do
  [ -d "$d" ] && seeds+=("$d")
done
mkdir -p "$BUILD/fuzz-work" "$BUILD/fuzz-artifacts"
status=0
shopt -s nullglob
for fuzzer in "$BUILD"/fuzz/*_fuzz; do
  [ -x "$fuzzer" ] || continue
  name=$(basename "$fuzzer")
  work="$BUILD/fuzz-work/$name"
  log="$BUILD/fuzz-work/$name.log"
  mkdir -p "$work"
  echo "== $name: ${FUZZ_SECONDS}s =="
  if "$fuzzer" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 -timeout=10 \
      -print_final_stats=1 -close_fd_mask=3 -artifact_prefix="$BUILD/fuzz-artifacts/$name-" \
      "$work" "${seeds[@]}" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    echo "$name: ${runs:-?} executions, no findings"
  else
    echo "$name: FAILED (log: $log)"
    tail -n 60 "$log"
    status=1
  fi
done
exit $status
