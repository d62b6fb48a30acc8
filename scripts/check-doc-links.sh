#!/usr/bin/env bash
# Checks that installed documentation points only at files that are there:
# in every guide (*.md) of DOC_DIR, each relative link and picture
# ("](images/x.png)") and each guide named in the text ("`simulator.md`"),
# and in every manual page given, each path into a documentation folder.
# Prints every broken reference and fails if there is one. --absent GUIDE
# (repeatable) accepts references to a guide that is left out on purpose: a
# tree built without the GStreamer plugin or the Python package installs
# neither nor its guide, which the other guides still name.
#
# Usage: scripts/check-doc-links.sh [--absent GUIDE]... DOC_DIR [MANUAL_PAGE.gz...]
set -uo pipefail
absent=()
while [ "${1:-}" = --absent ]; do
  absent+=("$2")
  shift 2
done
doc_dir=$1
shift
broken=0
checked=0

left_out() { # the path a reference names
  local guide
  for guide in "${absent[@]}"; do
    [ "$(basename "$1")" = "$guide" ] && return 0
  done
  return 1
}

check() { # the file that refers, the path it names (relative to its folder or absolute)
  local from=$1 target=$2 path
  left_out "$target" && return
  case $target in
    /*) path=$target ;;
    *) path=$(dirname "$from")/$target ;;
  esac
  checked=$((checked + 1))
  if [ ! -e "$path" ]; then
    echo "$from: names $target, which is not there"
    broken=1
  fi
}

[ -d "$doc_dir" ] || { echo "no documentation folder $doc_dir"; exit 1; }
while IFS= read -r guide; do
  while IFS= read -r target; do
    check "$guide" "${target%%#*}"
  done < <(grep -o '](\([^)]*\))' "$guide" | sed 's/^](\(.*\))$/\1/' | grep -v '^[a-z]*:\|^#\|^$')
  while IFS= read -r named; do
    check "$guide" "$named"
  done < <(grep -o '`[A-Za-z0-9_-]*\.md`' "$guide" | tr -d '`' | sort -u)
done < <(find "$doc_dir" -name '*.md')

for page in "$@"; do
  while IFS= read -r path; do
    check "$page" "$path"
  done < <(zcat "$page" | sed 's/\\-/-/g' | grep -o '/[A-Za-z0-9_./-]*/share/doc/[A-Za-z0-9_./-]*' | sed 's/[.]$//' | sort -u)
done

[ "$checked" -gt 0 ] || { echo "no reference found in $doc_dir $*"; exit 1; }
[ "$broken" = 0 ] && echo "$checked references in the documentation, each to a file that is there"
exit $broken
