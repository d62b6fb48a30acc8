#!/usr/bin/env bash
# Cross-builds the library, the simulator and the tests for the board
# (64-bit Arm, cmake/aarch64-linux-gnu.cmake) in build-arm64/ (or
# $ZELISP_BUILD_DIR) and runs the whole suite under qemu-aarch64. Then
# checks that the Arm64 library exports exactly the symbols of the host
# build (build/, or $ZELISP_HOST_BUILD_DIR, when present).
#
# Left out under qemu, each for a reason of the emulation, not of the code:
#  - packaging.install_and_consume compiles a consumer with the host compiler
#    and runs it, which an Arm64 install tree cannot serve (the exported-symbol
#    and header checks of the same folder do run);
#  - tools.* (zelisp-cam's end-to-end runs), RunnerTest.*, BoardRunnerTest.*
#    and SharedBoardRunnerTest.* (whole boards: several runners, programs of
#    one board, or the simulator preloaded by hand into sh),
#    StandardClientsTest.* and the v4l2-ctl listing start
#    zelisp-sim-run or host tools (ls, v4l2-ctl, v4l2-compliance, gst-launch)
#    with the simulator preloaded: an Arm64 runner cannot be executed by the
#    host shell, nor an Arm64 library preloaded into a host tool;
#  - web.* start an Arm64 zelisp-sim-run from the host's Python and drive the
#    host's Chromium, for the same reason as RunnerTest.* (and the web
#    console is only built where libmicrohttpd, libturbojpeg and GStreamer's
#    WebRTC library exist for Arm64);
#  - SimulatorRobustnessTest.StreamOnAnswersEnomemWhenTheFrameThreadCannotStart
#    limits the address space, which under qemu-user is the emulator's own;
#  - SharedBoardTest.AProcessKilledHoldingTheBoardsLockDoesNotWedgeIt kills a
#    process holding the board's robust mutex: qemu-user does not implement
#    the kernel's robust futex lists (set_robust_list), so the lock of a
#    killed process is never handed on there;
#  - CoreNodesTest.DuplicatesAreTrackedAndShareTheOpenFile sends a V4L2
#    request to a real /dev/null, which qemu-user answers with ENOSYS (it
#    knows no translation for it) where the kernel says ENOTTY.
set -euo pipefail
cd "$(dirname "$0")/.."
ZELISP_SETUP_CROSS=1 ./scripts/setup.sh
build_dir=${ZELISP_BUILD_DIR:-build-arm64}
host_build_dir=${ZELISP_HOST_BUILD_DIR:-build}
jobs=${ZELISP_JOBS:-$(nproc)}

# The GStreamer plugin and the Python package are host-side parts with no Arm64
# development files installed here, and the Python tests would need an Arm64
# interpreter, which cannot be installed beside the host's; they are built
# and tested in the other stages.
# Line tables only (-g1): enough to place a crash under qemu, and a third
# less compile time than full debug information.
cmake -S . -B "$build_dir" -DZELISP_WERROR=ON -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
  -DZELISP_BUILD_GST=OFF -DZELISP_BUILD_PYTHON=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" >/dev/null
cmake --build "$build_dir" -j"$jobs"

library="$build_dir/src/libzelisp.so.1"
readelf -h "$library" | grep -q 'Machine:.*AArch64' || { echo "$library is not an Arm64 library"; exit 1; }

excluded='^tools\.|^web\.|^packaging\.install_and_consume$|^RunnerTest\.|^BoardRunnerTest\.|^SharedBoardRunnerTest\.|^SharedBoardTest\.AProcessKilledHoldingTheBoardsLockDoesNotWedgeIt$|^StandardClientsTest\.|^SimulatorRobustnessTest\.StreamOnAnswersEnomem|^ControlListingTest\.V4l2Ctl|^CoreNodesTest\.DuplicatesAreTrackedAndShareTheOpenFile$'
ctest --test-dir "$build_dir" --output-on-failure -j"$jobs" -E "$excluded" "$@"

exported() { nm -D --defined-only "$1" | awk '$2 ~ /^[TWDBRV]$/ {print $3}' | sort -u; }
if [ -e "$host_build_dir/src/libzelisp.so.1" ]; then
  if ! diff <(exported "$host_build_dir/src/libzelisp.so.1") <(exported "$library"); then
    echo "exported symbols differ between x86-64 (<) and Arm64 (>)"
    exit 1
  fi
  echo "exported symbol set identical on x86-64 and Arm64 ($(exported "$library" | wc -l) symbols)"
fi
