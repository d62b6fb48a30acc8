#!/usr/bin/env bash
# Builds everything and runs every test through CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/build.sh
ctest --test-dir "${ZELISP_BUILD_DIR:-build}" --output-on-failure -j"$(nproc)"
