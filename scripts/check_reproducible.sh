#!/usr/bin/env bash
# Builds the packages twice, here and from a copy of the sources in another
# folder, and compares programs, libraries and packages byte by byte.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# sums FOLDER: a checksum of each product in a build folder.
sums() {
  cd "$1"
  sha256sum libvelprobe.a libvelprobe.so.*.*.* src/driver/velprobe \
    tools/standin/velstandin ./*.deb
}

mkdir "$work/elsewhere"
git ls-files -z -co --exclude-standard |
  xargs -0 cp --parents -t "$work/elsewhere"
./scripts/build_packages.sh >/dev/null
"$work/elsewhere/scripts/build_packages.sh" "$work/out" >/dev/null
diff <(sums build/package) <(sums "$work/out")
echo "reproducible: all well"
