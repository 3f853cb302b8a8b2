#!/usr/bin/env bash
# Builds with the newest clang and the newest g++ that apt offers, runs the
# tests of each, and builds programs and library once more on the standard
# library that comes with that clang. Says so where nothing is newer than the
# compilers of the presets.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
need_packages "${build_packages[@]}" "${test_packages[@]}" clang

# newest PATTERN: the highest number that apt offers packages of that name with.
newest() {
  apt-cache search --names-only "^$1-[0-9]+\$" |
    sed 's/^[^ ]*-\([0-9]*\) .*/\1/' | sort -n | tail -n 1
}

# build NAME COMPILER ARGUMENT...: what the release preset makes of it.
build() {
  cmake --preset release -B "build/$1" -DCMAKE_CXX_COMPILER="$2" \
    "${@:3}" >/dev/null
  cmake --build "build/$1"
}

# try COMPILER VERSION
try() {
  local used
  used=$("$1" -dumpversion)
  if [ "${2:-0}" -le "${used%%.*}" ]; then
    echo "SKIPPED: apt has no $1 newer than $used" >&2
    return
  fi
  need_packages "${1/clang++/clang}-$2"
  # A newer clang sees that headers of g++ 12 use what they deprecate.
  build "newest_$1" "$1-$2" \
    -DCMAKE_CXX_FLAGS=-Wno-error=deprecated-declarations
  ctest --test-dir "build/newest_$1" --output-on-failure --no-tests=error \
    -j "$(nproc)"
}

clang=$(newest clang)
try g++ "$(newest 'g[+][+]')"
try clang++ "$clang"

# GoogleTest's package is made for the other standard library. Linked into each
# file: in Debian 12 the shared one is older than the headers.
if need_packages "clang-$clang" "libc++-$clang-dev" "libc++abi-$clang-dev"; then
  build libcxx "clang++-$clang" -DCMAKE_CXX_FLAGS=-stdlib=libc++ \
    -DCMAKE_{EXE,SHARED,MODULE}_LINKER_FLAGS=-static-libstdc++ \
    -DVELPROBE_TESTS=OFF
else
  echo "SKIPPED: libc++-$clang cannot be installed here" >&2
fi
