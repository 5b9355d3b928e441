#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds the consumer in tests/package against it
# twice, through the CMake package and through pkg-config, then runs both on a small frame.
# Usage: scripts/package_check.sh BUILD_DIR
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work="$build/package_check"
rm -rf "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name libvkt_zb_ldc.so | head -n 1)")

cmake -S "$src/tests/package" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" "$src/configs/qvldc_sample.xml" 2>/dev/null

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$work/consumer_pc" "$src/tests/package/consumer.c" \
  $(pkg-config --cflags --libs vkt_zb_ldc) -Wl,-rpath,"$libdir"
"$work/consumer_pc" "$src/configs/qvldc_sample.xml" 2>/dev/null
echo "package: CMake and pkg-config consumers built and ran against $work/prefix"
