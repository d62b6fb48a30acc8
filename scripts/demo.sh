#!/usr/bin/env bash
# The main job: builds everything and runs a capture on the simulated cameras.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/build.sh
build_dir=${ZELISP_BUILD_DIR:-build}
exec "$build_dir/sim/zelisp-sim-run" -- "$build_dir/examples/open_camera"
