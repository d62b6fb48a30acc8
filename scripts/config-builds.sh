#!/usr/bin/env bash
# Builds the project in configurations other than the test suite's, with
# warnings as errors, to catch what only another compiler, optimisation
# level or a distribution's flags bring out. Nothing is run: the suite runs
# in one configuration (scripts/ci-full.sh).
#
# Usage: scripts/config-builds.sh [CONFIG...]
#   CONFIG is COMPILER-TYPE[-hardened]: COMPILER gcc or clang, TYPE release,
#   debug, minsizerel or relwithdebinfo; "hardened" adds Debian's hardening
#   flags (dpkg-buildflags with hardening=+all: fortify, stack protector,
#   format security, relro, bindnow) and checks that the linked files carry
#   relro and bindnow. "all" is every combination (16 builds).
#   Default: gcc-release-hardened clang-debug, what CI builds.
#
# Each configuration builds in build-CONFIG/ (the prefix "build" is
# $ZELISP_CI_BUILD_PREFIX) the library, the simulator, the tools, the
# examples, the GStreamer plugin and the Python package; the tests too with
# ZELISP_CONFIG_TESTS=1, and without the plugin and the Python package with
# ZELISP_CONFIG_CORE=1 (what CI's clang build leaves out: they are C++ over
# GStreamer's and pybind11's headers, the two slowest parts to compile, and
# the suite builds and tests them with g++). The trees install into /usr: gcc-release-hardened
# is also the tree the Debian packages are made from (scripts/package-test.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=${ZELISP_CI_BUILD_PREFIX:-build}
jobs=${ZELISP_JOBS:-$(nproc)}
tests=${ZELISP_CONFIG_TESTS:-0}
core=${ZELISP_CONFIG_CORE:-0}

all_configs() {
  local compiler type
  for compiler in gcc clang; do
    for type in release debug minsizerel relwithdebinfo; do
      echo "$compiler-$type" "$compiler-$type-hardened"
    done
  done
}

# The compile and link flags of a Debian package build, as CMake takes them
# (it has no CPPFLAGS of its own).
hardening_arguments() {
  local -x DEB_BUILD_MAINT_OPTIONS=hardening=+all
  local cppflags cflags cxxflags ldflags
  cppflags=$(dpkg-buildflags --get CPPFLAGS)
  cflags=$(dpkg-buildflags --get CFLAGS)
  cxxflags=$(dpkg-buildflags --get CXXFLAGS)
  ldflags=$(dpkg-buildflags --get LDFLAGS)
  printf '%s\n' "-DCMAKE_C_FLAGS=$cppflags $cflags" "-DCMAKE_CXX_FLAGS=$cppflags $cxxflags" \
    "-DCMAKE_EXE_LINKER_FLAGS=$ldflags" "-DCMAKE_SHARED_LINKER_FLAGS=$ldflags" "-DCMAKE_MODULE_LINKER_FLAGS=$ldflags"
}

# Every program and shared object the build linked carries a read-only
# relocation segment and is bound at load time.
check_hardened() {
  local dir=$1 file bad=0 count=0
  while IFS= read -r file; do
    count=$((count + 1))
    readelf -lW "$file" | grep -q GNU_RELRO || { echo "$file: no relro"; bad=1; }
    readelf -dW "$file" | grep -Eq 'BIND_NOW|FLAGS_1.*NOW' || { echo "$file: no bindnow"; bad=1; }
  done < <(find "$dir" -type f \( -name '*.so*' -o -perm -u+x \) ! -path '*/CMakeFiles/*' \
             -exec sh -c 'head -c 4 "$1" | grep -q ELF' _ {} \; -print)
  [ "$count" -gt 0 ] || { echo "$dir: nothing linked"; return 1; }
  echo "$count linked files, each with relro and bindnow"
  return $bad
}

build_config() {
  local config=$1 compiler type hardened="" dir
  IFS=- read -r compiler type hardened <<<"$config"
  local -a arguments=(-DZELISP_WERROR=ON -DCMAKE_INSTALL_PREFIX=/usr -DZELISP_BUILD_TESTS="$([ "$tests" = 1 ] && echo ON || echo OFF)")
  case $compiler in
    gcc) arguments+=(-DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++) ;;
    clang) arguments+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
    *) echo "unknown compiler in $config"; return 2 ;;
  esac
  case $type in
    release) arguments+=(-DCMAKE_BUILD_TYPE=Release) ;;
    debug) arguments+=(-DCMAKE_BUILD_TYPE=Debug) ;;
    minsizerel) arguments+=(-DCMAKE_BUILD_TYPE=MinSizeRel) ;;
    relwithdebinfo) arguments+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    *) echo "unknown build type in $config"; return 2 ;;
  esac
  case $hardened in
    hardened) mapfile -t -O "${#arguments[@]}" arguments < <(hardening_arguments) ;;
    "") ;;
    *) echo "unknown variant in $config"; return 2 ;;
  esac
  [ "$core" = 1 ] && arguments+=(-DZELISP_BUILD_GST=OFF -DZELISP_BUILD_PYTHON=OFF)
  command -v ccache >/dev/null && arguments+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

  dir=$prefix-$config
  echo "--- $config in $dir"
  mkdir -p "$dir"
  cmake -S . -B "$dir" "${arguments[@]}" >"$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; return 1; }
  cmake --build "$dir" -j"$jobs" || return 1
  [ -z "$hardened" ] || check_hardened "$dir"
}

main() {
  ./scripts/setup.sh
  local -a configs=("$@")
  [ ${#configs[@]} -eq 0 ] && configs=(gcc-release-hardened clang-debug)
  [ "${configs[*]}" = all ] && read -r -a configs <<<"$(all_configs | tr '\n' ' ')"
  local config failed=()
  for config in "${configs[@]}"; do
    build_config "$config" || failed+=("$config")
  done
  [ ${#failed[@]} -eq 0 ] || { echo "failed: ${failed[*]}"; return 1; }
  echo "built warning-free: ${configs[*]}"
}

main "$@"
