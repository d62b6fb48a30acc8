#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer in
# build-asan/ (or $ZELISP_BUILD_DIR) and runs the whole test suite there.
# Any sanitizer report fails the test that caused it: UBSan is built not to
# recover, ASan stops at the first error, LeakSanitizer runs at every exit.
#
# The rig's recording tests (rig.Loopback.*, rig.Namespaces.*) run once, in
# the plain stage: they stream in real time for a minute and more between
# servers and the recorder, which under the sanitizers would take several
# times as long, and the namespace rig measures frame sets against goals,
# which three boards with ASan's cost on two cores would turn into a
# measure of the machine. The recorder's frame-set logic (rig.FrameSets.*)
# and zelisp-rtsp (gst.ZelispRtsp.*) run instrumented here.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build_dir=${ZELISP_BUILD_DIR:-build-asan}
jobs=${ZELISP_JOBS:-$(nproc)}

# -O1 -g1: the optimisation level the sanitizers are made for (-O2 inlines
# and merges enough to blur a report's stack, and costs much more compile
# time on top of the instrumentation), and line tables, all a report needs
# to name file and line.
cmake -S . -B "$build_dir" -DZELISP_WERROR=ON -DZELISP_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=all" -DCMAKE_C_FLAGS="-fno-sanitize-recover=all" >/dev/null
cmake --build "$build_dir" -j"$jobs"

# verify_asan_link_order=0: the packaging check links a plain consumer
# against the instrumented library, so the runtime is not first in its
# load order; the check itself never touches memory the runtime guards.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1:verify_asan_link_order=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# GLib's type system and GStreamer's registry keep their allocations until
# exit by design: the GStreamer tests carry their own LeakSanitizer
# suppressions in their ctest environment (tests/gst/CMakeLists.txt), the only
# tests that load those libraries, so no suppression is set here for all.
# The Python package's suite (python.pytest) runs the interpreter through
# zelisp-sim-run, which preloads the sanitizer runtime ahead of the
# instrumented extension; tests/python/run_pytest.sh turns leak detection off
# for that process only, since the interpreter's own allocations are not ours.
# The package's wheel test (python.wheel) runs in the plain stage only: it
# compiles the library and the extension once more, in Release and without
# the sanitizers (as a user's pip does), so here it would check nothing the
# plain stage does not, at a minute of build.
# The web console's load test (a minute of full load, hundreds of clients)
# and its browser test run in the plain stage only: under the sanitizers
# they would take several times as long, and the server and WebRTC code
# they drive runs instrumented here in web.http, web.security and
# web.webrtc.
ctest --test-dir "$build_dir" --output-on-failure -j"$jobs" \
  -E '^web\.(load|browser)$|^rig\.(Loopback|Namespaces)\.|^python\.wheel$' "$@"
