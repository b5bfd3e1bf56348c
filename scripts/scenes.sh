#!/bin/bash
# Makes the generated files of scenes/ anew, by the generate.py of each scene, and tells which of them changed.
#
#   scenes.sh
#
# The exit status is 0 if all files were as their generators make them, 1 if not. What differs is then put in its place,
# so that a second run succeeds. A file below model/ or image/ that no generator writes is named and left alone.
# Generators work on a copy: one that fails changes nothing.
set -euo pipefail
export LC_ALL=C.UTF-8 PYTHONDONTWRITEBYTECODE=1

cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/zephlore-scenes-XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

cp -r scenes "$work"
rm -rf "$work"/scenes/*/{model,image} "$work"/scenes/templates/*/model
for generator in "$work"/scenes/*/generate.py; do
  scene=$(basename "$(dirname "$generator")")
  echo "$scene"
  python3 "$generator" > "$work/output" 2>&1 || {
    cat "$work/output" >&2
    echo "scenes: the generator of '$scene' failed; nothing is changed" >&2
    exit 1
  }
done

# Both ways: what the generators wrote, and what was there.
status=0
while IFS= read -r -d '' file; do
  cmp -s "$work/$file" "$file" && continue
  status=1
  if [ ! -e "$work/$file" ]; then
    echo "no generator writes $file" >&2
  else
    if [ -e "$file" ]; then echo "changed: $file" >&2; else echo "new: $file" >&2; fi
    mkdir -p "$(dirname "$file")"
    cp "$work/$file" "$file"
  fi
done < <({ find scenes -type f -not -path '*/__pycache__/*' -print0
           cd "$work" && find scenes -type f -not -path '*/__pycache__/*' -print0; } | sort -zu)
[ "$status" = 0 ] && echo "all files are as their generators make them"
exit "$status"
