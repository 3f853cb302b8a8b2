#!/usr/bin/env bash
# Runs tests on processors that this machine does not have, in emulation: the
# cryptography on ARMv8, with its AES instructions, and on 32-bit ARM, which has
# no numbers of 128 bits; cryptography, codec, messages and configuration on
# s390x, where the highest byte comes first.
#
#   scripts/check_platforms.sh [PROCESSOR...]    aarch64, arm and s390x
#
# Skips and says so where compiler or emulator cannot be had.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

declare -A systems=(
  [aarch64]=aarch64-linux-gnu [arm]=arm-linux-gnueabihf [s390x]=s390x-linux-gnu)
declare -A tests=(
  [aarch64]='bignum aes key_agreement md5'
  [arm]='bignum aes key_agreement md5'
  [s390x]='bignum aes key_agreement md5 protocol messages config')
[ $# -gt 0 ] || set -- "${!tests[@]}"
gtest=/usr/src/googletest/googletest

# compile SYSTEM SOURCE: into the system's folder.
compile() {
  "$1-g++" -std=c++20 -O2 -Wall -Wextra -Werror \
    -D_POSIX_C_SOURCE=200809L -D_DEFAULT_SOURCE \
    -DVELPROBE_VERSION='"emulated"' -DVELPROBE_PROGRAM='""' \
    -DVELSTANDIN_PROGRAM='""' -DVELPROBE_FAULT_SHIM='""' \
    -DVELPROBE_SOURCE_DIR="\"$PWD\"" \
    -DVELPROBE_VECTORS="\"${VELPROBE_VECTORS:-}\"" \
    -I src -I tests -isystem "$gtest/include" -I "$gtest" \
    -c "$2" -o "build/$1/${2//\//_}.o"
}
export -f compile
export gtest

for processor; do
  system=${systems[$processor]}
  need_packages googletest qemu-user "g++-$system" || {
    echo "SKIPPED: no tests on $processor, compiler or emulator is missing" >&2
    continue
  }
  build=build/$system
  rm -rf "$build"
  mkdir -p "$build"
  rooms=(src/modules/Crypto src/util)
  [ "$processor" != s390x ] || rooms+=(src/net src/protocol src/probe src/config)
  read -ra names <<<"${tests[$processor]}"
  find "${rooms[@]}" -name '*.cpp' |
    cat - <(printf 'tests/%s_test.cpp\n' "${names[@]}") \
      <(printf '%s\n' "$gtest"/src/gtest{-all,_main}.cc) |
    xargs -P "$(nproc)" -I{} bash -c "compile $system {}"
  for name in "${names[@]}"; do
    "$system-g++" "$build/tests_${name}_test.cpp.o" \
      "$build"/src_*.o "$build"/*gtest*.o -o "$build/$name"
    # The emulator shows neither a process's death nor what a socket holds, and
    # judging large primes takes minutes in it.
    "qemu-$processor" -L "/usr/$system" "$build/$name" \
      --gtest_brief=1 \
      --gtest_filter='-*Death*:Primes.Judges*:SocketStream.*'
  done
done
