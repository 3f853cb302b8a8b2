#!/usr/bin/env bash
# Builds everything and runs all tests. Missing packages are installed first.
#
#   scripts/test.sh [PRESET]    release (default), debug, sanitizers, threads or
#                               clang
#
# VELPROBE_VECTORS names a folder of public test vectors; without it the tests
# that read them are skipped and say so.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

preset=${1:-release}
need_packages "${build_packages[@]}" "${test_packages[@]}"
[ "$preset" = clang ] && need_packages clang
cmake --preset "$preset" -DVELPROBE_VECTORS="${VELPROBE_VECTORS:-}"
cmake --build --preset "$preset"
ctest --preset "$preset" -j "$(nproc)"
