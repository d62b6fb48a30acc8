#!/usr/bin/env bash
# Runs pytest on the Python package's tests on the simulated driver, as a
# user runs a script: zelisp-sim-run puts the simulator in front of Debian's
# /usr/bin/python3 (which has numpy, OpenCV and pytest).
#
#   run_pytest.sh SIM_RUN PACKAGE_DIR HELPER_DIR SOURCE_DIR SANITIZED(0|1) PYTEST_ARGUMENTS...
#
# With a sanitized build the instrumented extension needs the sanitizer's
# runtime first in the process, which zelisp-sim-run preloads; the
# interpreter itself is not ours to check for leaks, so leak detection is off
# for this process (every other sanitizer check stays on).
set -uo pipefail
sim_run=$1 package_dir=$2 helper_dir=$3 source_dir=$4 sanitized=$5
shift 5
export PYTHONPATH="$package_dir:$helper_dir${PYTHONPATH:+:$PYTHONPATH}"
export PYTHONDONTWRITEBYTECODE=1
export ZELISP_SOURCE_DIR="$source_dir" ZELISP_SIM_RUN="$sim_run" ZELISP_HELPER_DIR="$helper_dir"
if [ "$sanitized" = 1 ]; then
  export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
  export ZELISP_SANITIZED=1
fi
"$sim_run" -- /usr/bin/python3 -m pytest -p no:cacheprovider -rfEs "$@"
status=$?
if [ "$status" -eq 5 ]; then
  echo "pytest collected no tests in $*: failing"
  exit 1
fi
exit "$status"
