#!/usr/bin/env bash
# Asserts that the library exports exactly the expected dynamic symbols,
# carries its SONAME and needs nothing but libc and libstdc++.
set -euo pipefail
library=$1
expected=$2
actual=$(nm -D --defined-only "$library" | awk '$2 ~ /^[TWDBRV]$/ {print $3}' | sed 's/@.*//' | grep -v '^ZELISP_1$' | sort -u)
if ! diff <(grep -v '^#' "$expected" | sort -u) <(echo "$actual"); then
  echo "exported symbols differ from $expected (< expected, > actual)"
  exit 1
fi
# Functions added after the first release carry a newer version node.
for entry in isp_open_video@@ZELISP_1 isp_set_view_format@@ZELISP_1.1; do
  nm -D --defined-only "$library" | awk '{print $3}' | grep -qx "$entry" || { echo "$entry not exported"; exit 1; }
done
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libzelisp.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }
needed=$(readelf -d "$library" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sort | tr '\n' ' ')
for lib in $needed; do
  case "$lib" in
    libc.so.6|libstdc++.so.6|ld-linux*) ;;
    lib*san.so*) ;; # sanitizer builds
    *) echo "unexpected dependency: $lib"; exit 1 ;;
  esac
done
real=$(readlink -f "$library")
[ "$(basename "$real")" = "libzelisp.so.1.3.0" ] || { echo "library file is $(basename "$real")"; exit 1; }
echo "exported set, SONAME and dependencies as expected"
