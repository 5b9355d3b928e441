#!/usr/bin/env bash
# ThreadSanitizer run: builds the library and the unit-test binary with clang under
# ThreadSanitizer and runs the tests that drive instances on concurrent threads. Any report
# fails the script.
# Usage: scripts/tsan.sh [builddir]   (JOBS overrides the default)
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build/tsan}
JOBS=${JOBS:-$(nproc)}

CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
  -DLDC_TSAN=ON -DLDC_BUILD_TESTS=ON >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target ldc_tests

# Reports go to files: the tests silence the library's log lines on stderr while the threads run.
logs="$BUILD/tsan-reports"
rm -rf "$logs"
mkdir -p "$logs"
export TSAN_OPTIONS="halt_on_error=1:exitcode=66:log_path=$logs/report"
echo "== concurrency tests under ThreadSanitizer =="
status=0
"$BUILD/tests/ldc_tests" --gtest_brief=1 --gtest_filter='Concurrency*' || status=$?
if compgen -G "$logs/report*" >/dev/null; then
  cat "$logs"/report*
  status=1
fi
[ "$status" -eq 0 ] && echo "ThreadSanitizer: no reports"
exit "$status"
