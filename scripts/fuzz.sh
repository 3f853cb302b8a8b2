#!/usr/bin/env bash
# Builds the fuzz targets and runs each for some seconds, from fresh seeds and
# past findings.
#
#   scripts/fuzz.sh [SECONDS [TARGET...]]    10 seconds, all targets
#
# Ends at the first crash; the input that caused it is left in build/fuzz. Once
# the fault is mended, it goes into fuzz/seeds/TARGET under a name that tells
# what it found, and every test run tries it from then on.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

seconds=${1:-10}
shift || true
need_packages "${build_packages[@]}" clang libclang-rt-14-dev
build=$(realpath -m "${VELPROBE_FUZZ_BUILD:-build/fuzz}")
cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build"

if [ $# -eq 0 ]; then
  for source in fuzz/*_fuzz.cpp; do
    set -- "$@" "$(basename "$source" .cpp)"
  done
fi
# In memory: a target that rewrites files waits for the disk each time.
work=$(mktemp -d -p /dev/shm)
trap 'rm -rf "$work"' EXIT
findings=$PWD/fuzz/seeds
cd "$work"
for target in "$@"; do
  mkdir "$target"
  [ ! -d "$findings/$target" ] || cp "$findings/$target"/* "$target"
  "$build/fuzz/$target" -max_total_time="$seconds" -max_len=4096 \
    -rss_limit_mb=512 -timeout=10 -artifact_prefix="$build/crash-$target-" \
    "$target" >log 2>&1 || {
    cat log >&2
    exit 1
  }
  printf '%-16s %s\n' "$target" "$(grep -a '^Done' log)"
done
