#!/usr/bin/env bash
# Long fuzzing run, outside the test command. Builds every libFuzzer target in two flavours:
#   asan    ASan + UBSan + LeakSanitizer and the kernels' source-read checks (catches the most,
#           runs slowest)
#   checks  the source-read checks alone, without sanitizers (several times faster; catches
#           crashes, traps and reads outside the frame)
# and runs each target in each flavour for SECONDS. Runs go FUZZ_JOBS at a time (default: the
# number of processors), in the order target by target, asan before checks: with two jobs the two
# flavours of one target run side by side on one corpus, each taking in what the other finds, and
# the wall time is (number of targets) x SECONDS. A finding ends its run (the input is kept under
# build/fuzz-artifacts/); the other runs go on.
# Usage: scripts/fuzz.sh SECONDS [TARGET...]   (default: every target; FUZZ_JOBS, JOBS (build),
#        BUILD_DIR override the defaults). Corpora persist in the build tree, so runs add up.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_RUN=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...]}
FUZZ_JOBS=${FUZZ_JOBS:-$(nproc)}
JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD_DIR:-build}

shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in fuzz/*_fuzz.cpp; do
    targets+=("$(basename "$src" .cpp)")
  done
fi

# The asan flavour is configured as scripts/sanitize.sh configures its build.
CC=clang CXX=clang++ cmake -S . -B "$BUILD/fuzz-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DLDC_SANITIZE=ON -DLDC_CHECK_READS=ON -DLDC_BUILD_FUZZ=ON -DLDC_BUILD_TESTS=OFF \
  -DCMAKE_SHARED_LINKER_FLAGS=-shared-libsan >/dev/null
CC=clang CXX=clang++ cmake -S . -B "$BUILD/fuzz-checks" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -gline-tables-only" \
  -DLDC_SANITIZE=OFF -DLDC_CHECK_READS=ON -DLDC_BUILD_FUZZ=ON -DLDC_BUILD_TESTS=OFF >/dev/null
for flavour in asan checks; do
  cmake --build "$BUILD/fuzz-$flavour" -j "$JOBS" --target "${targets[@]}" >/dev/null
done

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

seeds=()
for d in fuzz/corpus/*/ configs/ tests/configs/; do
  [ -d "$d" ] && seeds+=("$d")
done
corpora="$BUILD/fuzz-corpus"
artifacts="$BUILD/fuzz-artifacts"
logs="$BUILD/fuzz-logs"
mkdir -p "$corpora" "$artifacts" "$logs"

# The targets' own output is dropped (the library prints a line per worker whose pinning failed,
# a hundred megabytes in a long run); libFuzzer's reports still reach the log.
run() {   # target flavour
  mkdir -p "$corpora/$1"
  "$BUILD/fuzz-$2/fuzz/$1" -max_total_time="$SECONDS_PER_RUN" -rss_limit_mb=2048 -timeout=10 \
    -print_final_stats=1 -close_fd_mask=3 -artifact_prefix="$artifacts/$1-$2-" \
    "$corpora/$1" "${seeds[@]}" >"$logs/$1-$2.log" 2>&1 && echo 0 >"$logs/$1-$2.rc" || echo $? >"$logs/$1-$2.rc"
}

echo "== ${#targets[@]} targets x 2 flavours, ${SECONDS_PER_RUN}s each, $FUZZ_JOBS at a time =="
rm -f "$artifacts"/* "$logs"/*
running=0
for target in "${targets[@]}"; do
  for flavour in asan checks; do
    if [ "$running" -ge "$FUZZ_JOBS" ]; then
      wait -n
      running=$((running - 1))
    fi
    run "$target" "$flavour" &
    running=$((running + 1))
  done
done
wait

# A run that failed without leaving an input (a crash at start, say) counts as one finding.
final_stat() {   # log name
  sed -n "s/^stat::$2: *//p" "$1" | tail -n 1
}
total=0
findings=0
printf '%-18s %12s %8s %12s %8s %9s\n' target asan-execs exec/s checks-execs exec/s findings
for target in "${targets[@]}"; do
  row=()
  found=0
  for flavour in asan checks; do
    log="$logs/$target-$flavour.log"
    runs=$(final_stat "$log" number_of_executed_units)
    row+=("${runs:-?}" "$(final_stat "$log" average_exec_per_sec)")
    total=$((total + ${runs:-0}))
    n=$(find "$artifacts" -name "$target-$flavour-*" | wc -l)
    if [ "$n" -eq 0 ] && [ "$(cat "$logs/$target-$flavour.rc")" != 0 ]; then
      n=1
    fi
    if [ "$n" -gt 0 ]; then
      echo "$target ($flavour): $n finding(s), log $log"
    fi
    found=$((found + n))
  done
  printf '%-18s %12s %8s %12s %8s %9s\n' "$target" "${row[@]}" "$found"
  findings=$((findings + found))
done
echo "total: $total executions, $findings findings (corpora: $corpora, artifacts: $artifacts)"
[ "$findings" -eq 0 ]
