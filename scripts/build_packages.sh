#!/usr/bin/env bash
# Builds the Debian packages velprobe, libvelprobe0 and libvelprobe-dev.
#
#   scripts/build_packages.sh [FOLDER]    where to put them; build/package
#
# The same commit gives the same bytes, wherever it is built.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/packages.sh"
need_packages "${build_packages[@]}" dpkg-dev file fakeroot

folder=$(realpath -m "${1:-$root/build/package}")
# The time of the commit stands for the time of the build.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct)}
export SOURCE_DATE_EPOCH
umask 022

cd "$root"
mkdir -p "$folder"
rm -f "$folder"/*.deb
{
  cmake --preset release -B "$folder" -DVELPROBE_TESTS=OFF \
    -DCMAKE_INSTALL_PREFIX=/usr \
    -DVELPROBE_ZSH_COMPLETION_DIR=share/zsh/vendor-completions &&
    cmake --build "$folder" &&
    cd "$folder" &&
    cpack
} >"$folder/build.log" 2>&1 || {
  cat "$folder/build.log" >&2
  exit 1
}
ls "$folder"/*.deb
