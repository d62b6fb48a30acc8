#!/usr/bin/env bash
# The main job: builds everything (installing what a fresh machine lacks),
# then runs zelisp-cam on the simulated driver for a four-camera group
# capture on the internal trigger. It writes PNG previews of every view of
# the last frame set, a contact sheet with every camera's view 0 side by side
# and summary.json into build/demo/, prints the summary, and fails if the
# library refused a frame.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/build.sh
build_dir=${ZELISP_BUILD_DIR:-build}
out_dir="$build_dir/demo"
rm -rf "$out_dir"

"$build_dir/sim/zelisp-sim-run" -- "$build_dir/tools/zelisp-cam/zelisp-cam" \
  capture -c 0,1,2,3 --group --trigger internal --views 0,1,2 --frames 100 --format png --out "$out_dir"

echo
echo "PNG previews and contact sheet in $out_dir:"
ls "$out_dir"
if grep -Eq '"refused": [1-9]' "$out_dir/summary.json"; then
  echo "demo: the library refused frames (see the summary above)" >&2
  exit 1
fi
