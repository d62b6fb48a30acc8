#!/usr/bin/env bash
# The full check, as CI runs it: every stage below in this order, each in
# its own build directory, with the time each took. scripts/test.sh stays the
# quick everyday command; this one adds the slow jobs.
#
#   plain      build + whole suite (build/)
#   sanitize   whole suite under ASan + UBSan (build-asan/)
#   valgrind   whole suite under valgrind memcheck (on build/)
#   lint       clang-tidy and cppcheck on src/ (build-lint/, configure only)
#   coverage   line coverage of src/ with gcovr (build-coverage/)
#   cross      Arm64 build, whole suite under qemu-aarch64 (build-arm64/)
#   configs    built, not tested, warnings as errors: library, simulator,
#              tools, examples, plugin and Python package in Release with g++
#              and Debian's hardening flags (build-gcc-release-hardened/, the
#              package build); library, simulator, tools and examples in
#              Debug with clang (build-clang-debug/; plugin and Python
#              package left out for time, see scripts/config-builds.sh)
#   packages   the Debian packages made from the package build, lintian,
#              installed on this machine, used, purged (build-package-test/)
#
# Usage: scripts/ci-full.sh [stage...]   (default: all, in the order above)
# ZELISP_CI_BUILD_PREFIX changes the "build" prefix of the directories.
# Every stage runs even after a failure; the summary lists each result and
# the script fails if any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."
prefix=${ZELISP_CI_BUILD_PREFIX:-build}
export ZELISP_JOBS=${ZELISP_JOBS:-$(nproc)}
# CI runs as root: the rig tests in network namespaces must run there, and
# fail rather than skip when they cannot.
export ZELISP_CI=1
# Ninja for every tree this run configures afresh (a tree configured before
# keeps its generator): it compiles a target's objects while the libraries
# they link are still being built, where make waits for whole targets, which
# on two cores leaves one idle at every target boundary.
if command -v ninja >/dev/null; then
  export CMAKE_GENERATOR=Ninja
fi
# The suite's trees carry line tables (-g1), which is all a sanitizer's or
# valgrind's report needs to name file and line; full debug information
# would cost a third more compile time in every stage.
line_tables_only=(-DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG")

stage_plain() {
  ZELISP_BUILD_DIR=$prefix ./scripts/build.sh "${line_tables_only[@]}" &&
    ctest --test-dir "$prefix" --output-on-failure -j"$ZELISP_JOBS"
}
stage_sanitize() { ZELISP_BUILD_DIR=$prefix-asan ./scripts/sanitize-test.sh; }
stage_valgrind() { ZELISP_BUILD_DIR=$prefix ./scripts/valgrind-test.sh; }
stage_coverage() { ZELISP_BUILD_DIR=$prefix-coverage ./scripts/coverage.sh; }
stage_cross() { ZELISP_BUILD_DIR=$prefix-arm64 ZELISP_HOST_BUILD_DIR=$prefix ./scripts/cross-test.sh; }
stage_configs() {
  ZELISP_CI_BUILD_PREFIX=$prefix ./scripts/config-builds.sh gcc-release-hardened &&
    ZELISP_CI_BUILD_PREFIX=$prefix ZELISP_CONFIG_CORE=1 ./scripts/config-builds.sh clang-debug
}
# Not skipped here: a skip (77, not root) fails the stage like any failure.
stage_packages() { ZELISP_CI_BUILD_PREFIX=$prefix ZELISP_PACKAGE_TEST=1 ./scripts/package-test.sh; }

# clang-tidy with the checks of .clang-tidy, and cppcheck, over every source
# file of the library; both fail on any finding.
stage_lint() {
  ./scripts/setup.sh || return 1
  local dir=$prefix-lint status=0
  cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DZELISP_BUILD_SIM=OFF -DZELISP_BUILD_TESTS=OFF \
    -DZELISP_BUILD_TOOLS=OFF -DZELISP_BUILD_EXAMPLES=OFF -DZELISP_BUILD_GST=OFF -DZELISP_BUILD_PYTHON=OFF >/dev/null || return 1
  mapfile -t sources < <(find src -name '*.cpp' | sort)
  echo "clang-tidy: ${#sources[@]} files"
  # One file a run: clang-tidy 14's analyser carries va_list state from one
  # file into the next in the same process and then reports a va_list used
  # before va_start in a file that is clean on its own.
  printf '%s\n' "${sources[@]}" | xargs -P "$ZELISP_JOBS" -n 1 clang-tidy -p "$dir" --quiet || status=1
  # Style findings left out: useStlAlgorithm (a taste), and two false
  # positives, each named: PlaneEntry hands out a mutable entry of the camera
  # it is given (constParameter), and the valid-camera search runs after the
  # "no camera" return, not instead of it (knownConditionTrueFalse).
  echo "cppcheck"
  cppcheck --project="$dir/compile_commands.json" \
    --enable=warning,style,performance,portability --std=c++17 --inline-suppr \
    --suppress=missingIncludeSystem --suppress=useStlAlgorithm \
    --suppress=constParameter:src/camera/buffers.cpp \
    --suppress=knownConditionTrueFalse:src/group/group_membership.cpp \
    --error-exitcode=1 --quiet -j "$ZELISP_JOBS" || status=1
  return $status
}

# A CI log is often read from its end only: repeat there each failed test's
# result line and the last lines of its output, as ctest printed them
# (--output-on-failure), so a failure far up in an hour of log is still seen.
failed_tests_output() {
  awk '
    /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .*\*\*\*(Failed|Timeout|Exception)/ { keep = 1; n = 0; print; next }
    /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: |^ +Start +[0-9]+: |tests passed, [0-9]+ tests? failed/ { if (keep) flush(); keep = 0; next }
    keep { lines[n++ % 40] = $0 }
    END { if (keep) flush() }
    function flush(  i, first) {
      first = n > 40 ? n - 40 : 0
      if (first) print "  [" first " earlier lines]"
      for (i = first; i < n; i++) print lines[i % 40]
    }
  ' "$1" | head -n 400
  grep -A 30 '^The following tests FAILED' "$1" || tail -n 30 "$1"
}

stages=("$@")
[ ${#stages[@]} -eq 0 ] && stages=(plain sanitize valgrind lint coverage cross configs packages)
results=()
failed=0
failed_stages=()
stage_logs=$(mktemp -d)
trap 'rm -rf "$stage_logs"' EXIT
total_start=$SECONDS
for stage in "${stages[@]}"; do
  if ! declare -F "stage_$stage" >/dev/null; then
    echo "unknown stage: $stage"; exit 2
  fi
  echo "=== $stage ==="
  start=$SECONDS
  if "stage_$stage" 2>&1 | tee "$stage_logs/$stage.log"; then
    outcome=passed
  else
    outcome=FAILED; failed=1; failed_stages+=("$stage")
  fi
  elapsed=$((SECONDS - start))
  results+=("$(printf '%-9s %-7s %3dm%02ds' "$stage" "$outcome" $((elapsed / 60)) $((elapsed % 60)))")
  echo "=== $stage $outcome in ${elapsed}s ==="
done
total=$((SECONDS - total_start))
for stage in "${failed_stages[@]}"; do
  echo
  echo "=== what failed in $stage ==="
  failed_tests_output "$stage_logs/$stage.log"
done
echo
echo "=== summary ==="
printf '%s\n' "${results[@]}"
printf 'total %dm%02ds\n' $((total / 60)) $((total % 60))
exit $failed
