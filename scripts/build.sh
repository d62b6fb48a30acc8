#!/usr/bin/env bash
# Configures and builds the project in build/ (or $ZELISP_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build_dir=${ZELISP_BUILD_DIR:-build}
cmake -S . -B "$build_dir" "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
