#!/usr/bin/env bash
# Makes the Debian packages with CPack, checks their names, dependencies and
# contents, unpacks them into a scratch root and uses that root as a user
# would: the tool and the simulator run with no environment set, and a
# program and the examples build against the unpacked development files.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
(cd "$build_dir" && cpack -G DEB -B "$work/debs" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }

fail() { echo "$*"; exit 1; }
version=$(sed -n 's/^project(zelisp VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
for package in libzelisp1 libzelisp-dev zelisp-tools zelisp-sim; do
  deb=$(ls "$work"/debs/${package}_${version}-1_*.deb 2>/dev/null) || fail "no package $package"
  dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$work/$package.files"
  dpkg-deb -x "$deb" "$work/root"
  grep -qx "/usr/share/doc/$package/copyright" "$work/$package.files" || fail "$package: no copyright file"
done
expect_files() {
  local package=$1; shift
  for file in "$@"; do
    grep -qx "$file" "$work/$package.files" || fail "$package lacks $file"
  done
}
expect_files libzelisp1 /usr/lib/libzelisp.so.1 "/usr/lib/libzelisp.so.$version"
expect_files libzelisp-dev /usr/include/zelisp.h /usr/lib/libzelisp.so /usr/lib/pkgconfig/zelisp.pc \
  /usr/lib/cmake/zelisp/zelispConfig.cmake /usr/share/doc/zelisp/examples/CMakeLists.txt
expect_files zelisp-tools /usr/bin/zelisp-cam /usr/share/man/man1/zelisp-cam.1.gz /usr/share/doc/zelisp/zelisp-cam.md
expect_files zelisp-sim /usr/bin/zelisp-sim-run /usr/lib/zelisp/libzelisp-sim.so \
  /usr/share/man/man1/zelisp-sim-run.1.gz /usr/share/doc/zelisp/simulator.md
# The link name and headers only in the development package.
! grep -q '^/usr/lib/libzelisp.so$' "$work/libzelisp1.files" || fail "libzelisp1 carries the link name"

field() { dpkg-deb -f "$(ls "$work"/debs/$1_*.deb)" "$2"; }
[[ $(field libzelisp1 Depends) == *"libc6 (>="* ]] || fail "libzelisp1 depends on: $(field libzelisp1 Depends)"
# The library of this version, the shared libraries the tool links (from
# dpkg-shlibdeps), the font of the contact sheet's labels, and the GStreamer
# elements the web console's WebRTC view loads by name.
for needed in "libzelisp1 (= $version-1)" libpng16-16 libfreetype6 fonts-dejavu-core libmicrohttpd12 \
  gstreamer1.0-plugins-bad gstreamer1.0-nice; do
  [[ $(field zelisp-tools Depends) == *"$needed"* ]] ||
    fail "zelisp-tools does not depend on $needed: $(field zelisp-tools Depends)"
done
[[ $(field libzelisp-dev Depends) == *"libzelisp1 (= $version-1)"* ]] || fail "libzelisp-dev: $(field libzelisp-dev Depends)"
dpkg-deb -I "$(ls "$work"/debs/libzelisp1_*.deb)" shlibs | grep -qx "libzelisp 1 libzelisp1 (>= $version-1)" ||
  fail "libzelisp1 has no shlibs entry"

# Unpacked, with no environment at all.
usr="$work/root/usr"
out=$(env -i "$usr/bin/zelisp-sim-run" -- "$usr/bin/zelisp-cam" list)
[[ $out == "4 valid cameras"* ]] || fail "unpacked zelisp-cam list: $out"
(cd "$work" && env -i "$usr/bin/zelisp-sim-run" -- "$usr/bin/zelisp-cam" capture -c 0 --views 0,1 \
  --view-format 1=NV12:1280x720 --format raw --frames 2 --out shots >/dev/null)
ls "$work/shots" | grep -q '^cam0-view1-NV12-1280x720-s1280-[0-9]*\.raw$' || fail "no 1280x720 view 1 file: $(ls "$work/shots")"
[ "$(stat -c %s "$work"/shots/cam0-view1-*.raw)" = $((1280 * 720 * 3 / 2)) ] || fail "view 1 file size"

# A program built against the unpacked development files, found at run
# time through its RUNPATH.
PKG_CONFIG_PATH="$usr/lib/pkgconfig" c++ -std=c++17 -Wall -Wextra -Werror \
  $(PKG_CONFIG_PATH="$usr/lib/pkgconfig" pkg-config --cflags zelisp) "$source_dir/tests/packaging/consumer/version.cpp" \
  -o "$work/version" $(PKG_CONFIG_PATH="$usr/lib/pkgconfig" pkg-config --libs zelisp) -Wl,-rpath,"$usr/lib"
[ "$(env -i "$work/version")" = "zelisp:v$version" ] || fail "consumer against the unpacked tree"
cmake -S "$usr/share/doc/zelisp/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$usr" >/dev/null
cmake --build "$work/examples" >/dev/null
env -i "$usr/bin/zelisp-sim-run" -- "$work/examples/open_camera" | grep -q "camera 0: native descriptor" ||
  fail "example against the unpacked tree"
# The plugin and the Python package, when built: each where the system's
# GStreamer and Python look, as the packages install them.
plugins_dir=$(pkg-config --variable=pluginsdir gstreamer-1.0 2>/dev/null || true)
if ls "$work"/debs/gstreamer1.0-zelisp_*.deb >/dev/null 2>&1 && [ -n "$plugins_dir" ]; then
  listing=$(dpkg-deb -c "$(ls "$work"/debs/gstreamer1.0-zelisp_*.deb)")
  [[ $listing == *" .$plugins_dir/libgstzelisp.so"* ]] || fail "gstreamer1.0-zelisp does not put the plugin in $plugins_dir"
fi
if ls "$work"/debs/python3-zelisp_*.deb >/dev/null 2>&1; then
  listing=$(dpkg-deb -c "$(ls "$work"/debs/python3-zelisp_*.deb)")
  [[ $listing == *" ./usr/lib/python3/dist-packages/zelisp/__init__.py"* ]] ||
    fail "python3-zelisp does not put the package in /usr/lib/python3/dist-packages"
  for needed in "python3 (>= " python3-numpy-abi9 "libzelisp1 (= $version-1)"; do
    [[ $(field python3-zelisp Depends) == *"$needed"* ]] || fail "python3-zelisp: $(field python3-zelisp Depends)"
  done
fi
echo "packages, their dependencies and contents as expected; the unpacked tree works"
