#!/usr/bin/env bash
# Configures and builds the project in build/ (or $ZELISP_BUILD_DIR), with
# warnings as errors: a new warning is ours to fix before it reaches users,
# whose own builds keep -Werror off.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build_dir=${ZELISP_BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DZELISP_WERROR=ON "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
