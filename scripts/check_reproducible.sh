#!/usr/bin/env bash
# Builds the packages twice, here and from a copy of the sources in another
# folder without a repository, and compares them byte by byte.
#
#   scripts/check_reproducible.sh [BUILT]    a folder of packages built already
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# sums FOLDER: a checksum of each package in it.
sums() {
  cd "$1"
  sha256sum ./*.deb
}

mkdir "$work/elsewhere"
git ls-files -z -co --exclude-standard |
  xargs -0 cp --parents -t "$work/elsewhere"
[ $# -gt 0 ] || ./scripts/build_packages.sh >/dev/null
"$work/elsewhere/scripts/build_packages.sh" "$work/out" >/dev/null
diff <(sums "${1:-build/package}") <(sums "$work/out")
echo "reproducible: all well"
