#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a small program
# against it twice: with pkg-config and with CMake's find_package. Then a C11
# program is built against the same tree with pkg-config and run on the
# installed simulator: it captures frames and checks their stamps.
set -euo pipefail
build_dir=$1
consumer=$2
work=$3
rm -rf "$work"
prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

for file in include/zelisp.h; do
  [ -f "$prefix/$file" ] || { echo "missing $file"; exit 1; }
done
libdir=$(dirname "$(find "$prefix" -name 'libzelisp.so.1.3.0' | head -n1)")
[ -L "$libdir/libzelisp.so.1" ] && [ -L "$libdir/libzelisp.so" ] || { echo "library links missing in $libdir"; exit 1; }

# pkg-config
export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -std=c++17 -Wall -Wextra -Werror $(pkg-config --cflags zelisp) "$consumer/version.cpp" \
    -o "$work/version-pkgconfig" $(pkg-config --libs zelisp)
LD_LIBRARY_PATH="$libdir" "$work/version-pkgconfig" | grep -qx "zelisp:v1.3.0"

# A C application: the header is C11 too, and the library's C functions are
# everything it needs.
cc -std=c11 -Wall -Wextra -Werror -Wpedantic $(pkg-config --cflags zelisp) "$consumer/capture.c" \
    -o "$work/capture-c" $(pkg-config --libs zelisp)
LD_LIBRARY_PATH="$libdir" "$prefix/bin/zelisp-sim-run" -- "$work/capture-c" >"$work/capture-c.out" || {
  cat "$work/capture-c.out"; exit 1; }
diff -u - "$work/capture-c.out" <<'OUT'
zelisp:v1.3.0
cameras: 4, first 0
/dev/video0 view input supported combination: 7
/dev/video0 view input combination: 4
view 2: NV12 640x360
3 frames, each stamped with its sequence number
closed
OUT

# find_package
cmake -S "$consumer" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/consumer-build/version" | grep -qx "zelisp:v1.3.0"
# The installed programs find the installed library and simulator by
# themselves: no environment at all.
out=$(cd "$work" && env -i "$prefix/bin/zelisp-sim-run" -- "$prefix/bin/zelisp-cam" info -c 0)
[[ $out == "camera 0: /dev/video0 (mode 1)"* ]] || { echo "installed zelisp-cam: $out"; exit 1; }
for page in zelisp-cam zelisp-sim-run zelisp-rtsp; do
  [ "$page" != zelisp-rtsp ] || [ -x "$prefix/bin/zelisp-rtsp" ] || continue
  zcat "$prefix/share/man/man1/$page.1.gz" | grep -q '^\.TH' || { echo "no manual page for $page"; exit 1; }
done
# The help and the manual name the guide of the prefix the tree was
# installed into (not the configured one), and every reference of the
# installed guides and manuals is to a file that is there.
guide="$prefix/share/doc/zelisp/zelisp-cam.md"
env -i "$prefix/bin/zelisp-cam" --help | grep -qF "Guide: $guide" || { echo "zelisp-cam --help names another guide"; exit 1; }
zcat "$prefix/share/man/man1/zelisp-cam.1.gz" | sed 's/\\-/-/g' | grep -qF "$guide" ||
  { echo "the manual of zelisp-cam names another guide"; exit 1; }
# A tree built without the plugin or the Python package has neither guide.
absent=()
[ -n "$(find "$prefix" -name libgstzelisp.so)" ] || absent+=(--absent gstreamer.md --absent multi-board.md)
[ -d "$build_dir/python/zelisp" ] || absent+=(--absent python.md)
check_links=("$consumer/../../../scripts/check-doc-links.sh" "${absent[@]}" "$prefix/share/doc/zelisp"
  "$prefix"/share/man/man1/*.1.gz)
"${check_links[@]}" >/dev/null || { "${check_links[@]}"; exit 1; }
# A plain install is no Debian package: no copyright or changelog files.
leftover=$(find "$prefix/share/doc" -name copyright -o -name 'changelog.Debian*')
[ -z "$leftover" ] || { echo "a plain install drops Debian files: $leftover"; exit 1; }

# The examples, as a project of their own against the installed tree.
cmake -S "$consumer/../../../examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
env -i "$prefix/bin/zelisp-sim-run" -- "$work/examples/open_camera" | grep -q "camera 0: native descriptor" || {
  echo "example built against the install does not run"; exit 1; }

# The Python package, when built: installed where Debian's interpreter looks
# for the default prefix, and importable from the prefix alone (no build
# tree, no library path: the extension finds libzelisp by its run path).
if [ -d "$build_dir/python/zelisp" ]; then
  package=$(dirname "$(find "$prefix" -path '*/zelisp/__init__.py' | head -n1)")
  [ -f "$package/__init__.pyi" ] && [ -f "$package/py.typed" ] || { echo "python package incomplete: $package"; exit 1; }
  relative=${package#"$prefix"/}
  relative=${relative%/zelisp}
  /usr/bin/python3 -c "import sys; sys.exit('/usr/local/$relative' not in sys.path and '/usr/$relative' not in sys.path)" ||
    { echo "python package installed to $relative, which /usr/bin/python3 does not read"; exit 1; }
  out=$(cd / && env -u LD_LIBRARY_PATH PYTHONPATH="$(dirname "$package")" "$prefix/bin/zelisp-sim-run" -- \
    /usr/bin/python3 -c "import zelisp; print(zelisp.__file__.startswith('$prefix'), zelisp.version(), [c.index for c in zelisp.cameras()])")
  [ "$out" = "True zelisp:v1.3.0 [0, 1, 2, 3]" ] || { echo "python import from the installed tree: $out"; exit 1; }
fi
echo "installed tree usable through pkg-config and find_package; installed programs, examples and the Python package run"
