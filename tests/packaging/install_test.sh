#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a small program
# against it twice: with pkg-config and with CMake's find_package.
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

# find_package
cmake -S "$consumer" -B "$work/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/consumer-build/version" | grep -qx "zelisp:v1.3.0"
echo "installed tree usable through pkg-config and find_package"
