#!/bin/bash
# Builds the Debian packages of the files that git knows, as they stand, and lets lintian look at them.
#
#   packages.sh FOLDER
#
# FOLDER/build keeps the build for the next time. What lintian has to say of them is a failure.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
mkdir -p "$1"
folder=$(realpath "$1")
source=$folder/build/zephlore
mkdir -p "$source"
rm -f "$folder"/*.deb "$folder"/build/*.{deb,buildinfo,changes}

# Nothing else, and what is gone goes: files keep their times, so that the next build is short.
git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
  if [ -e "$file" ]; then printf '%s\0' "$file"; fi
done > "$folder/build/files"
find "$source" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
tar c --null -T "$folder/build/files" | tar x -C "$source"

(cd "$source" && DEB_BUILD_OPTIONS="noautodbgsym parallel=$(nproc) ${DEB_BUILD_OPTIONS-}" \
  dpkg-buildpackage -b -us -uc -nc) > "$folder/build/log" 2>&1 || {
  tail -n 40 "$folder/build/log" >&2
  echo "packages: the build failed: $folder/build/log tells all" >&2
  exit 1
}
cp "$folder"/build/*.deb "$folder"
lintian --fail-on error,warning --allow-root "$folder"/build/*.changes
ls -sh1 "$folder"/*.deb
