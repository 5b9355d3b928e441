#!/usr/bin/env bash
# Installs everything the demo, the tools and the test command need on a fresh Debian machine.
set -euo pipefail
SUDO=""
[ "$(id -u)" = 0 ] || SUDO=sudo
PKGS=(
  cmake make g++ clang libclang-rt-14-dev
  googletest libgtest-dev libbenchmark-dev
  libsimde-dev
  g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user
  libopencv-imgproc-dev libopencv-calib3d-dev libopencv-imgcodecs-dev libopencv-objdetect-dev opencv-data
  libsvm-dev valgrind pkgconf
  python3
)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
