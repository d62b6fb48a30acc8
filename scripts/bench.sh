#!/usr/bin/env bash
# Builds the benchmarks (build-bench/, or $ZELISP_BENCH_BUILD_DIR), runs all
# of them on the simulated driver and rewrites docs/performance.md.
#   ./scripts/bench.sh                     full run, about five minutes
#   ./scripts/bench.sh --quick             short runs, to check the harness
#   ./scripts/bench.sh --only python       one section (bench/sections/*.py) alone, in place
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build_dir=${ZELISP_BENCH_BUILD_DIR:-build-bench}
cmake -S . -B "$build_dir" -DZELISP_BUILD_BENCH=ON -DZELISP_BUILD_TOOLS=ON -DZELISP_BUILD_TESTS=OFF -DZELISP_BUILD_EXAMPLES=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if [ "${1:-}" = "--quick" ]; then
  export ZELISP_BENCH_QUICK=1
elif [ "${1:-}" = "--only" ]; then
  export ZELISP_BENCH_ONLY="${2:?--only needs a section name}"
fi
cmake --build "$build_dir" -j"$(nproc)" --target bench
