#!/usr/bin/env bash
# Proves that what the cryptography module does with secrets shows neither in
# branches nor in addresses, under valgrind's memcheck, and that nothing of them
# is left on the dead stack of a program whose functions are bound lazily.
#
#   scripts/check_constant_time.sh [COMPILER...]    g++ and clang++
#
# Skips and says so where valgrind cannot be had.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

need_packages valgrind || {
  echo 'SKIPPED: constant time is not checked, there is no valgrind here' >&2
  exit 0
}
source=${VELPROBE_SOURCE:-src}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ $# -gt 0 ] || set -- g++ clang++

# build PROGRAM COMPILER FLAG...
build() {
  local program=$1
  shift
  # With the hardening of what is installed.
  "$@" -std=c++20 -O3 -DNDEBUG -gdwarf-4 -fstack-protector-strong \
    -fstack-clash-protection -fcf-protection \
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_POSIX_C_SOURCE=200809L -D_DEFAULT_SOURCE -I "$source" \
    tests/secrets_check.cpp "$source"/modules/Crypto/*.cpp \
    "$source"/util/{error_text,text}.cpp -o "$program"
}

failed=0
for compiler; do
  command -v "$compiler" >/dev/null || {
    echo "SKIPPED: constant time of $compiler, which is not here" >&2
    continue
  }
  echo "$compiler:"
  build "$work/time" "$compiler" -DVELPROBE_PROVE_CONSTANT_TIME
  valgrind --quiet --log-file="$work/log" "$work/time" time || {
    failed=1
    # The places, most frequent first, behind the two of the program's own test.
    grep -A1 -E 'uninitialised' "$work/log" | grep -oE 'at 0x.*' |
      cut -d' ' -f3- | sort | uniq -c | sort -rn | head -20 || true
  }
  build "$work/traces" "$compiler" -Wl,-z,lazy
  # Every call through the linker anew: it stores the registers each time.
  LD_BIND_NOT=1 "$work/traces" traces || failed=1
done
exit $failed
