#!/usr/bin/env bash
# ARM cost meter: exact ARM instructions per output pixel of the remap kernel, the warp kernel and
# IQV_LDC_Process (face path, lens only, face mesh) on a 4000 x 3000 NV21 frame, beside OpenCV's remap
# and warpPerspective on the same emulated CPU, for armhf and arm64.
#
# Host timings of the NEON code run through SIMDe on x86-64 say little about ARM; instruction
# counts under qemu-user say more: the driver bench/arm_cost.cpp marks each measured call as a
# region of the instruction-counting QEMU plugin (../shared/armcost, its README), which counts
# every guest instruction of every thread between the markers (the workers are joined inside the
# calls). Counts are exact; from run to run they move by some 10^4 instructions of the 10^8 of a
# call (thread start and join). They do not show cache misses, bandwidth or stalls.
#
# Usage: bash bench/arm_cost.sh [--arch armhf|arm64]... [--profile] [--top N]
#   --arch A     measure only A (repeatable; default both)
#   --profile    also write, per region, the functions and source lines that execute the most
#                instructions (build/armcost-<arch>/profile.txt, printed after the table)
#   --top N      rows per region in the profile (default 12)
# Environment: ARMCOST_DIR (the plugin's folder; default ../shared/armcost beside the checkout),
#   ARMCOST_DEBIAN_MIRROR (default http://deb.debian.org/debian).
#
# What it does, all inside build/ (nothing is installed system-wide beyond scripts/setup.sh):
#   1. builds the plugin (and runs its self-test) into build/armcost-plugin;
#   2. downloads Debian's OpenCV core/imgproc runtime packages and their library dependencies for
#      the target with a private apt state (build/armcost-apt: the system's architectures and
#      package lists stay untouched) and unpacks them into build/armcost-sysroot-<arch>;
#   3. builds the library with the project's toolchain file (Release, plus -g for the profile)
#      into build/armcost-<arch> and links the driver against it and the unpacked OpenCV;
#   4. runs the driver under qemu with the plugin and prints the table.
# The peers: Debian's arm64 OpenCV has NEON as its baseline; Debian's armhf OpenCV is built for
# the armhf baseline (VFPv3-D16, no NEON), so its armhf counts are those of scalar code. The
# driver prints the baseline it found. Run time about one to two minutes once the packages are
# there.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
ARCHS=()
PROFILE=0
TOP=12
while [ $# -gt 0 ]; do
  case "$1" in
    --arch) ARCHS+=("$2"); shift 2 ;;
    --profile) PROFILE=1; shift ;;
    --top) TOP=$2; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown argument: $1 (see --help)" >&2; exit 2 ;;
  esac
done
[ ${#ARCHS[@]} -gt 0 ] || ARCHS=(armhf arm64)
for a in "${ARCHS[@]}"; do
  case "$a" in armhf|arm64) ;; *) echo "unknown architecture: $a" >&2; exit 2 ;; esac
done

T0=$(date +%s)
bash "$ROOT/scripts/setup.sh"

# --- the plugin -------------------------------------------------------------------------------
ARMCOST_DIR=${ARMCOST_DIR:-}
if [ -z "$ARMCOST_DIR" ]; then
  for d in "$ROOT/../shared/armcost" "$ROOT/../../shared/armcost"; do
    [ -f "$d/build.sh" ] && ARMCOST_DIR=$(cd "$d" && pwd) && break
  done
fi
if [ ! -f "$ARMCOST_DIR/build.sh" ]; then
  echo "the armcost plugin folder was not found; set ARMCOST_DIR" >&2
  exit 1
fi
echo "== plugin: $ARMCOST_DIR"
mkdir -p "$ROOT/build"
PLUGIN=$(bash "$ARMCOST_DIR/build.sh" "$ROOT/build/armcost-plugin" 2>"$ROOT/build/armcost-plugin.log" | tail -1) ||
  { cat "$ROOT/build/armcost-plugin.log" >&2; exit 1; }
grep -h "passed" "$ROOT/build/armcost-plugin.log" | sed 's/^/   self-test: /'

# --- Debian's OpenCV for the target, unpacked privately -----------------------------------------
# The runtime packages that match the host's OpenCV headers (same version), and the libraries
# they load (the toolchain provides libc, libm, libstdc++ and libgcc_s).
cv_runtime() {   # -dev package -> runtime package of the same version
  dpkg-query -W -f='${Depends}' "$1" | tr ',' '\n' | grep -o "${2}[0-9a-z.]*" | head -1
}
CV_VERSION=$(dpkg-query -W -f='${Version}' libopencv-core-dev)
CV_PKGS=("$(cv_runtime libopencv-core-dev libopencv-core)=$CV_VERSION"
         "$(cv_runtime libopencv-imgproc-dev libopencv-imgproc)=$CV_VERSION")
DEP_PKGS=(libtbb12 libtbbmalloc2 libblas3 liblapack3 libgfortran5 libglx0 libglvnd0 libx11-6 libxcb1
          libxau6 libxdmcp6 libbsd0 libmd0 zlib1g)

APTDIR=$ROOT/build/armcost-apt
apt_private() {
  local opts=(-q -o "Dir::State::Lists=$APTDIR/lists" -o "Dir::Cache=$APTDIR/cache"
              -o "Dir::Etc::SourceList=$APTDIR/sources.list" -o "Dir::Etc::SourceParts=$APTDIR/sources.list.d"
              -o "APT::Architectures::=armhf" -o "APT::Architectures::=arm64" -o Debug::NoLocking=1)
  [ "$(id -u)" != 0 ] || opts+=(-o APT::Sandbox::User=root)
  apt-get "${opts[@]}" "$@"
}

fetch_opencv() {   # ARCH SYSROOT
  local arch=$1 sys=$2 want stamp
  want="${CV_PKGS[*]} ${DEP_PKGS[*]}"
  stamp=$sys/.packages
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
    return
  fi
  if [ ! -f "$APTDIR/lists/.updated" ]; then
    mkdir -p "$APTDIR/lists/partial" "$APTDIR/cache/archives/partial" "$APTDIR/sources.list.d"
    local codename
    # shellcheck source=/dev/null
    codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
    echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] ${ARMCOST_DEBIAN_MIRROR:-http://deb.debian.org/debian} $codename main" \
      > "$APTDIR/sources.list"
    apt_private update >/dev/null
    touch "$APTDIR/lists/.updated"
  fi
  local debs=$APTDIR/debs-$arch p
  rm -rf "$debs" "$sys"
  mkdir -p "$debs" "$sys"
  local list=()
  for p in "${CV_PKGS[@]}"; do list+=("${p%%=*}:$arch=${p#*=}"); done
  for p in "${DEP_PKGS[@]}"; do list+=("$p:$arch"); done
  (cd "$debs" && apt_private download "${list[@]}" >/dev/null)
  for p in "$debs"/*.deb; do dpkg-deb -x "$p" "$sys"; done
  echo "$want" > "$stamp"
}

# Every library the OpenCV libraries load must be in the sysroot or the toolchain's directory.
check_closure() {   # TRIPLE LIBDIR...
  local triple=$1; shift
  local dirs=("$@" "/usr/$triple/lib") todo=() seen=" " name d f found
  for d in "${dirs[@]}"; do
    for f in "$d"/libopencv_core.so.[0-9]* "$d"/libopencv_imgproc.so.[0-9]*; do
      [ -e "$f" ] && [[ "$f" != *.so.*.*.* ]] && todo+=("$(basename "$f")")
    done
  done
  while [ ${#todo[@]} -gt 0 ]; do
    name=${todo[0]}; todo=("${todo[@]:1}")
    [[ "$seen" == *" $name "* ]] && continue
    seen+="$name "
    found=""
    for d in "${dirs[@]}"; do [ -e "$d/$name" ] && found=$d/$name && break; done
    [ -n "$found" ] || { echo "OpenCV for $triple needs $name, which no unpacked package provides" >&2; return 1; }
    for f in $("$triple-objdump" -p "$found" | awk '$1 == "NEEDED" {print $2}'); do todo+=("$f"); done
  done
}

# --- one architecture ---------------------------------------------------------------------------
declare -A COUNT THREADS INFO SECONDS_OF
measure() {   # ARCH
  local arch=$1 triple qemu toolchain
  case "$arch" in
    armhf) triple="arm-linux-gnueabihf"; qemu="qemu-arm"; toolchain="armhf-linux.cmake" ;;
    arm64) triple="aarch64-linux-gnu"; qemu="qemu-aarch64"; toolchain="aarch64-linux.cmake" ;;
  esac
  local sys=$ROOT/build/armcost-sysroot-$arch bld=$ROOT/build/armcost-$arch
  echo "== $arch: OpenCV packages"
  fetch_opencv "$arch" "$sys"
  local libdirs=() d
  while read -r d; do libdirs+=("$d"); done < <(find "$sys" -name '*.so*' -printf '%h\n' | sort -u)
  check_closure "$triple" "${libdirs[@]}"
  local libpath rpath
  libpath=$(IFS=:; echo "${libdirs[*]}")
  rpath=$libpath

  echo "== $arch: library and driver"
  # Release as the phones get it; -g only adds the line tables the profile reads.
  cmake -S "$ROOT" -B "$bld" -G "Unix Makefiles" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchains/$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O3 -DNDEBUG -g" -DCMAKE_C_FLAGS_RELEASE="-O3 -DNDEBUG -g" \
    -DLDC_BUILD_TESTS=OFF >/dev/null
  cmake --build "$bld" -j2 --target vkt_zb_ldc_static >/dev/null
  # The driver is compiled with the library's own compiler, flags and include paths.
  local flags=$bld/CMakeFiles/vkt_zb_ldc_obj.dir/flags.make cxx
  cxx=$(sed -n 's/^# compile CXX with //p' "$flags")
  local cxxflags cxxdefs cxxincs
  cxxflags=$(sed -n 's/^CXX_FLAGS = //p' "$flags")
  cxxdefs=$(sed -n 's/^CXX_DEFINES = //p' "$flags")
  cxxincs=$(sed -n 's/^CXX_INCLUDES = //p' "$flags")
  local cvlibs=() f
  for f in "${libdirs[@]}"; do
    for l in "$f"/libopencv_imgproc.so.[0-9]* "$f"/libopencv_core.so.[0-9]*; do
      [ -e "$l" ] && [[ "$l" != *.so.*.*.* ]] && cvlibs+=("$l")
    done
  done
  # Not position independent: the driver's and the library's code sit at their link addresses.
  # shellcheck disable=SC2086
  $cxx $cxxflags $cxxdefs $cxxincs -isystem /usr/include/opencv4 -no-pie \
    "$ROOT/bench/arm_cost.cpp" -o "$bld/arm_cost" "$bld/libvkt_zb_ldc_static.a" "${cvlibs[@]}" \
    -Wl,-rpath-link,"$rpath" -pthread -lm

  echo "== $arch: measuring under $qemu"
  local work=$bld/work t
  rm -rf "$work"
  mkdir -p "$work"
  local plug="$PLUGIN,out=$work/report.txt"
  [ "$PROFILE" = 0 ] || plug+=",profile=on"
  t=$(date +%s)
  if ! "$qemu" -L "/usr/$triple" -E "LD_LIBRARY_PATH=$libpath" -plugin "$plug" "$bld/arm_cost" "$work" \
      >"$work/driver.out" 2>"$work/driver.err"; then
    echo "the driver failed on $arch:" >&2
    tail -20 "$work/driver.err" >&2
    exit 1
  fi
  SECONDS_OF[$arch]=$(( $(date +%s) - t ))
  local id px name n thr
  while read -r _ id px name; do
    n=$(awk -v id="$id" '$1 == "region" && $2 == id {print $4}' "$work/report.txt")
    thr=$(awk -v id="$id" '$1 == "region" && $2 == id {print $6}' "$work/report.txt")
    [ -n "$n" ] || { echo "no count for region $id on $arch" >&2; exit 1; }
    COUNT[$arch:$name]=$n
    COUNT[$arch:pixels]=$px
    THREADS[$arch:$name]=$thr
    if [ "$PROFILE" = 1 ]; then
      {
        echo "-- $arch region $id $name: $n instructions, $(awk -v n="$n" -v p="$px" 'BEGIN {printf "%.1f", n / p}') per pixel"
        python3 "$ROOT/bench/arm_cost_profile.py" --tbs "$work/report.txt.region$id.tbs" --maps "$work/maps.txt" \
          --prefix "$triple-" --sysroot "/usr/$triple" --pixels "$px" --top "$TOP"
      } >> "$bld/profile.txt"
    fi
  done < <(grep '^region ' "$work/driver.out")
  INFO[$arch]=$(sed -n 's/^info //p' "$work/driver.out")
}

for a in "${ARCHS[@]}"; do
  rm -f "$ROOT/build/armcost-$a/profile.txt"
  measure "$a"
done

# --- the table ----------------------------------------------------------------------------------
cell() {   # ARCH NAME... : instructions per pixel (one decimal) and the raw count, summed over NAMEs
  local arch=$1; shift
  local n=0 k
  for k in "$@"; do n=$(( n + ${COUNT[$arch:$k]} )); done
  awk -v n="$n" -v p="${COUNT[$arch:pixels]}" 'BEGIN {printf "%7.1f %13.0f", n / p, n}'
}
ratio() {   # ARCH A B... : count A over the sum of B...
  local arch=$1 a=$2; shift 2
  local n=0 k
  for k in "$@"; do n=$(( n + ${COUNT[$arch:$k]} )); done
  awk -v a="${COUNT[$arch:$a]}" -v b="$n" 'BEGIN {printf "%7.2fx %13s", a / b, ""}'
}
echo
for a in "${ARCHS[@]}"; do
  echo "$a:"
  printf '  %s\n' "${INFO[$a]//$'\n'/$'\n'  }"
done
echo
printf '%-44s' "instructions per output pixel (raw count)"
for a in "${ARCHS[@]}"; do printf ' | %-21s' "$a"; done
echo
ROWS=("remap kernel (DistortionCorrect_neon)|remap_kernel"
      "warp kernel (AffineTransform_neon)|warp_kernel"
      "IQV_LDC_Process, face path|process_face"
      "IQV_LDC_Process, lens only|process_lens"
      "IQV_LDC_Process, mesh, first frame|process_mesh_first"
      "IQV_LDC_Process, mesh, still frame|process_mesh_still"
      "IQV_LDC_Process, mesh, face moved|process_mesh_moved"
      "OpenCV remap|opencv_remap"
      "OpenCV warpPerspective|opencv_warpPerspective"
      "OpenCV remap + warpPerspective|opencv_remap opencv_warpPerspective")
for r in "${ROWS[@]}"; do
  printf '%-44s' "${r%%|*}"
  # shellcheck disable=SC2086
  for a in "${ARCHS[@]}"; do printf ' | %s' "$(cell "$a" ${r#*|})"; done
  echo
done
for r in "face path / (OpenCV remap + warpPerspective)|process_face opencv_remap opencv_warpPerspective" \
         "lens only / OpenCV remap|process_lens opencv_remap" \
         "mesh still / lens only|process_mesh_still process_lens" \
         "mesh moved / (OpenCV remap + warpPerspective)|process_mesh_moved opencv_remap opencv_warpPerspective"; do
  printf '%-44s' "${r%%|*}"
  for a in "${ARCHS[@]}"; do printf ' | %s' "$(ratio "$a" ${r#*|})"; done
  echo
done
echo "Pixels: ${COUNT[${ARCHS[0]}:pixels]} (4000 x 3000 luma; each call also does its chroma)."
printf 'Worker threads started per call:'
for a in "${ARCHS[@]}"; do
  printf ' %s remap %s, warp %s, face %s, lens %s, OpenCV %s + %s;' "$a" "${THREADS[$a:remap_kernel]}" \
    "${THREADS[$a:warp_kernel]}" "${THREADS[$a:process_face]}" "${THREADS[$a:process_lens]}" \
    "${THREADS[$a:opencv_remap]}" "${THREADS[$a:opencv_warpPerspective]}"
done
echo
for a in "${ARCHS[@]}"; do printf 'qemu run %s: %ss. ' "$a" "${SECONDS_OF[$a]}"; done
echo "Total: $(( $(date +%s) - T0 ))s."
if [ "$PROFILE" = 1 ]; then
  for a in "${ARCHS[@]}"; do
    echo
    echo "== profile $a (build/armcost-$a/profile.txt)"
    cat "$ROOT/build/armcost-$a/profile.txt"
  done
fi
