#!/usr/bin/env bash
# Builds the Debian packages velprobe, libvelprobe1 and libvelprobe-dev, and
# those with their debug symbols.
#
#   scripts/build_packages.sh [FOLDER]    where to put them; build/package
#
# The same sources give the same bytes, wherever they are built: version, date
# and Debian's changelog come from CMakeLists.txt and CHANGELOG.md.
#
# A symbol of the library that is in debian/libvelprobe1.symbols and no longer
# there fails the build: it needs a new soname, or a new list before a release.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/packages.sh"
folder=$(realpath -m "${1:-$root/build/package}")

version=$(sed -n 's/^project(velprobe VERSION \([0-9.]*\).*/\1/p' \
  "$root/CMakeLists.txt")

# "## 0.1.0 (2026-11-20)" and what follows up to the next such line.
section=$(awk -v head="## $version " '
  /^## / { inside = index($0, head) == 1 } inside' "$root/CHANGELOG.md")
date=$(sed -n '1s/.* (\(.*\))$/\1/p' <<<"$section")
[ -n "$date" ] || {
  echo "CHANGELOG.md has no section \"## $version (YEAR-MONTH-DAY)\"" >&2
  exit 1
}

write_changelog() {
  echo "velprobe ($version) unstable; urgency=medium"
  echo
  sed -n '2,${/./{s/^- /* /; s/^/  /; p}}' <<<"$section"
  echo
  echo " -- velprobe developers <developers@velprobe.example> " \
    "$(LC_ALL=C date -u -d "$date" -R)"
}

# copy_sources: only from here; what is built elsewhere in the tree stays.
copy_sources() {
  rm -rf "$folder/sources"
  mkdir -p "$folder/sources"
  tar -C "$root" --exclude=./.git --exclude=./build \
    --exclude=".${folder#"$root"}" -cf - . | tar -C "$folder/sources" -xf -
}

need_packages "${build_packages[@]}" build-essential debhelper
mkdir -p "$folder"
rm -f "$folder"/*.{deb,ddeb,buildinfo,changes}
copy_sources
cd "$folder/sources"
write_changelog >debian/changelog
dpkg-buildpackage -b -us -uc >"$folder/build.log" 2>&1 || {
  cat "$folder/build.log" >&2
  exit 1
}
ls "$folder"/*.deb
