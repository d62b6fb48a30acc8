#!/usr/bin/env bash
# The Debian packages as a maintainer reviews them and a user meets them:
# made with CPack from a package build (scripts/config-builds.sh
# gcc-release-hardened: g++, Release, /usr, dpkg-buildflags' hardening),
# checked with lintian (any error fails, and any warning not accepted with
# its reason in docs/packaging.md), their contents and relations checked,
# installed on this machine, used with an empty environment, purged, and
# every file they installed checked gone.
#
# It installs packages, so it runs as root and only when asked:
# ZELISP_PACKAGE_TEST=1 (CI's packages stage sets it). Otherwise it exits
# 77, which CTest reports as skipped. The machine is restored on every way
# out: the packages are purged, and so is every package apt installed for
# them. It refuses to start (status 1, nothing installed) when the packages
# would meet another copy of their files: the packages already installed,
# an unowned file where a package puts one (a `cmake --install` into /usr,
# or the plugin link a /usr/local install makes in GStreamer's folder), or
# a zelisp module or plugin that Python or GStreamer already find.
#
# Usage: scripts/package-test.sh [WORK_DIR]   (default build-package-test/)
set -uo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
prefix=${ZELISP_CI_BUILD_PREFIX:-build}
build_dir=$prefix-gcc-release-hardened
work=$(realpath -m "${1:-$prefix-package-test}")
version=$(sed -n 's/^project(zelisp VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
packages=(libzelisp1 libzelisp-dev zelisp-tools zelisp-sim gstreamer1.0-zelisp python3-zelisp)

fail() { echo "package test: $*"; exit 1; }
skip() { echo "package test skipped: $*"; exit 77; }

[ "${ZELISP_PACKAGE_TEST:-0}" = 1 ] ||
  skip "it installs the packages on this machine; set ZELISP_PACKAGE_TEST=1 to run it (CI's packages stage does)"
[ "$(id -u)" = 0 ] || skip "it installs packages, which needs root"

installed_packages() { dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n' 2>/dev/null | awk '$1 ~ /^.i/ {print $2}' | sort; }

# ---- what is on the machine before -----------------------------------------
for package in "${packages[@]}"; do
  if dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^.i'; then
    fail "$package is installed already; purge it first (apt-get purge ${packages[*]})"
  fi
done

# ---- build, package ---------------------------------------------------------
./scripts/config-builds.sh gcc-release-hardened >/dev/null || fail "the package build failed (scripts/config-builds.sh gcc-release-hardened)"
rm -rf "$work"
mkdir -p "$work"
(cd "$build_dir" && cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack failed"; }
declare -A deb
for package in "${packages[@]}"; do
  deb[$package]=$(ls "$work"/debs/"${package}"_"$version"-1_*.deb 2>/dev/null) || fail "no package $package"
  dpkg-deb -c "${deb[$package]}" | awk '{print $6}' | sed 's|^\./|/|; s|/$||' | grep -v '^/$' >"$work/$package.files"
done

# ---- lintian ----------------------------------------------------------------
# The accepted warnings are the tags of the table under "| Tag |" in
# docs/packaging.md.
mapfile -t accepted < <(awk '/^\| Tag \|/ {table = 1; next} table && !/^\|/ {table = 0} table' docs/packaging.md |
                        sed -n 's/^| `\([a-z0-9-]*\)` |.*/\1/p')
suppress=$(IFS=,; echo "${accepted[*]}")
lintian --fail-on error,warning ${suppress:+--suppress-tags "$suppress"} "${deb[@]}" >"$work/lintian.log" 2>&1
lintian_status=$?
cat "$work/lintian.log"
[ "$lintian_status" = 0 ] || fail "lintian found errors or warnings not accepted in docs/packaging.md"
echo "lintian: clean but for the warnings docs/packaging.md accepts (${accepted[*]:-none})"

# ---- contents and relations -------------------------------------------------
expect_files() {
  local package=$1; shift
  for file in "$@"; do
    grep -qx "$file" "$work/$package.files" || fail "$package lacks $file"
  done
}
lib=/usr/lib/$multiarch
expect_files libzelisp1 "$lib/libzelisp.so.1" "$lib/libzelisp.so.$version" /usr/share/doc/libzelisp1/copyright
expect_files libzelisp-dev /usr/include/zelisp.h "$lib/libzelisp.so" "$lib/pkgconfig/zelisp.pc" \
  "$lib/cmake/zelisp/zelispConfig.cmake" /usr/share/doc/zelisp/examples/CMakeLists.txt /usr/share/doc/zelisp/README.md \
  /usr/share/doc/zelisp/api-guide.md /usr/share/doc/zelisp/performance.md
expect_files zelisp-tools /usr/bin/zelisp-cam /usr/share/man/man1/zelisp-cam.1.gz /usr/share/doc/zelisp/zelisp-cam.md \
  /usr/share/doc/zelisp/images/zelisp-cam-console.png
expect_files zelisp-sim /usr/bin/zelisp-sim-run "$lib/zelisp/libzelisp-sim.so" /usr/share/man/man1/zelisp-sim-run.1.gz \
  /usr/share/doc/zelisp/simulator.md
expect_files gstreamer1.0-zelisp "$lib/gstreamer-1.0/libgstzelisp.so" /usr/bin/zelisp-rtsp \
  /usr/share/man/man1/zelisp-rtsp.1.gz /usr/bin/zelisp-rig /usr/share/man/man1/zelisp-rig.1.gz \
  /usr/share/doc/zelisp/gstreamer.md /usr/share/doc/zelisp/multi-board.md
expect_files python3-zelisp /usr/lib/python3/dist-packages/zelisp/__init__.py /usr/share/doc/zelisp/python.md
for package in "${packages[@]}"; do
  expect_files "$package" "/usr/share/doc/$package/copyright" "/usr/share/doc/$package/changelog.Debian.gz"
  ! grep -q '__pycache__\|\.pyc$' "$work/$package.files" || fail "$package ships byte-compiled files"
done
! grep -q "^$lib/libzelisp.so$" "$work/libzelisp1.files" || fail "libzelisp1 carries the link name"

field() { dpkg-deb -f "${deb[$1]}" "$2"; }
for needed in "libzelisp1 (= $version-1)" libpng16-16 libfreetype6 fonts-dejavu-core; do
  [[ $(field zelisp-tools Depends) == *"$needed"* ]] || fail "zelisp-tools does not depend on $needed: $(field zelisp-tools Depends)"
done
[[ $(field libzelisp-dev Depends) == *"libzelisp1 (= $version-1)"* ]] || fail "libzelisp-dev: $(field libzelisp-dev Depends)"
for needed in "python3 (>= " python3-numpy-abi9 "libzelisp1 (= $version-1)"; do
  [[ $(field python3-zelisp Depends) == *"$needed"* ]] || fail "python3-zelisp: $(field python3-zelisp Depends)"
done
dpkg-deb -I "${deb[libzelisp1]}" shlibs | grep -qx "libzelisp 1 libzelisp1 (>= $version-1)" || fail "libzelisp1 has no shlibs entry"
dpkg-deb -I "${deb[libzelisp1]}" triggers | grep -qx "activate-noawait ldconfig" || fail "libzelisp1 does not trigger ldconfig"
for script in postinst postrm; do
  ! dpkg-deb -I "${deb[libzelisp1]}" "$script" >/dev/null 2>&1 || fail "libzelisp1 has a $script"
done
# The symbols file names exactly what the library exports.
dpkg-deb -I "${deb[libzelisp1]}" symbols >"$work/symbols"
head -n1 "$work/symbols" | grep -qx "libzelisp.so.1 libzelisp1 #MINVER#" || fail "symbols file header: $(head -n1 "$work/symbols")"
diff <(grep '^ ' "$work/symbols" | awk '{print $1}' | sed 's/@.*//' | sort) \
     <(nm -D --defined-only "$build_dir/src/libzelisp.so.1" | awk '{print $3}' | sed 's/@.*//' | sort) ||
  fail "the symbols file and the library's exported symbols differ"

# ---- install ------------------------------------------------------------------
# Nothing of ours may be there already: dpkg would silently take over an
# unowned file, and purging would then delete it.
for package in "${packages[@]}"; do
  while IFS= read -r path; do
    if [ -f "$path" ] || [ -L "$path" ]; then
      dpkg -S "$path" >/dev/null 2>&1 ||
        fail "$path is on this machine and no package owns it (a build-tree install?); $package would take it over and purging would delete it"
    fi
  done <"$work/$package.files"
done
if shadow=$(cd / && env -i /usr/bin/python3 -c 'import zelisp; print(zelisp.__file__)' 2>/dev/null); then
  fail "Python finds a zelisp module already ($shadow), which would hide python3-zelisp's; remove that install first"
fi
if env -i /usr/bin/gst-inspect-1.0 zelispsrc >/dev/null 2>&1; then
  fail "GStreamer finds a zelispsrc already ($(env -i gst-inspect-1.0 zelispsrc | sed -n 's/^ *Filename *//p')); remove that install first"
fi

installed_packages >"$work/packages-before"
restore() {
  local ours=()
  for package in "${packages[@]}"; do
    dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^.[ihUHFW]' && ours+=("$package")
  done
  if [ ${#ours[@]} -gt 0 ]; then
    echo "package test: purging ${ours[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${ours[@]}" >/dev/null 2>&1 || dpkg --purge "${ours[@]}" >/dev/null
  fi
  # What apt brought in for them goes too.
  local added
  added=$(comm -13 "$work/packages-before" <(installed_packages))
  if [ -n "$added" ]; then
    echo "package test: purging what was installed for them: $added"
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq $added >/dev/null 2>&1
  fi
}
trap restore EXIT

DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${deb[@]}" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; fail "the packages do not install"; }

# ---- used as installed, with no environment -------------------------------------
out=$(cd / && env -i /usr/bin/zelisp-sim-run -- /usr/bin/zelisp-cam list 2>"$work/list.err")
[[ $out == "4 valid cameras"* ]] || fail "zelisp-cam list under the installed simulator: $out $(cat "$work/list.err")"
[ ! -s "$work/list.err" ] || fail "zelisp-cam list wrote to standard error: $(cat "$work/list.err")"
out=$(env -i /usr/bin/gst-inspect-1.0 zelispsrc 2>&1) || fail "gst-inspect-1.0 zelispsrc: $out"
plugin=$(sed -n 's/^ *Filename *//p' <<<"$out")
# /lib is /usr/lib on a merged-/usr system, and GStreamer may name either.
[ "$(realpath "$plugin")" = "$(realpath "$lib/gstreamer-1.0/libgstzelisp.so")" ] ||
  fail "gst-inspect-1.0 finds the plugin elsewhere: $plugin"
out=$(cd / && env -i /usr/bin/python3 -c 'import zelisp; print(zelisp.__file__, zelisp.version())' 2>&1) ||
  fail "python3 -c 'import zelisp': $out"
[ "$out" = "/usr/lib/python3/dist-packages/zelisp/__init__.py zelisp:v$version" ] || fail "import zelisp: $out"
ls /usr/lib/python3/dist-packages/zelisp/__pycache__/*.pyc >/dev/null 2>&1 || fail "python3-zelisp was not byte-compiled"
# The library is found through ldconfig's cache (the trigger ran), by
# pkg-config in the multiarch folder (also as a cross pkg-config looks),
# and by CMake.
c++ -std=c++17 -Wall -Wextra -Werror $(pkg-config --cflags zelisp) tests/packaging/consumer/version.cpp \
  -o "$work/version" $(pkg-config --libs zelisp) || fail "a program does not build with pkg-config"
[ "$(env -i "$work/version")" = "zelisp:v$version" ] || fail "a program built against the packages does not run"
PKG_CONFIG_LIBDIR=$lib/pkgconfig:/usr/share/pkgconfig pkg-config --exists zelisp ||
  fail "pkg-config with the multiarch folder alone (a cross pkg-config) does not find zelisp"
cmake -S /usr/share/doc/zelisp/examples -B "$work/examples" >/dev/null && cmake --build "$work/examples" >/dev/null ||
  fail "the installed examples do not build"
env -i /usr/bin/zelisp-sim-run -- "$work/examples/open_camera" | grep -q "camera 0: native descriptor" ||
  fail "the installed examples do not run"
# Manuals and guides: every page, and every guide a page, the help or a
# guide names, is there.
for page in zelisp-cam zelisp-sim-run zelisp-rtsp; do
  zcat "/usr/share/man/man1/$page.1.gz" 2>/dev/null | grep -q '^\.TH' || fail "no manual page for $page"
done
[[ $(/usr/bin/zelisp-cam --help) == *"Guide: /usr/share/doc/zelisp/zelisp-cam.md"* ]] || fail "zelisp-cam --help names another guide"
./scripts/check-doc-links.sh /usr/share/doc/zelisp /usr/share/man/man1/zelisp-*.1.gz || fail "broken references in the installed documentation"

# ---- purge ------------------------------------------------------------------
DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${packages[@]}" >"$work/purge.log" 2>&1 ||
  { cat "$work/purge.log"; fail "the packages do not purge"; }
left=()
for package in "${packages[@]}"; do
  while IFS= read -r path; do
    [ -e "$path" ] || [ -L "$path" ] || continue
    [ -d "$path" ] && [ ! -L "$path" ] && dpkg -S "$path" >/dev/null 2>&1 && continue # a folder other packages share
    left+=("$path")
  done <"$work/$package.files"
done
[ -e /usr/lib/python3/dist-packages/zelisp ] && left+=(/usr/lib/python3/dist-packages/zelisp)
[ ${#left[@]} -eq 0 ] || fail "left after purging: ${left[*]}"
echo "packages: lintian-clean, installed, used with no environment, purged without a trace"
