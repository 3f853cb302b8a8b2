#!/usr/bin/env bash
# Checks how release programs are built: position-independent, relocations
# read-only from the start, no executable stack, stack protector, checked
# variants of the C library's functions, and jumps that the processor checks
# where it can (x86). Not of stripped programs: main is looked at by name.
#
#   scripts/check_hardening.sh PROGRAM...
set -euo pipefail

[ $# -gt 0 ] || { sed -n '2,7s/^# \{0,1\}//p' "$0" >&2; exit 2; }
failed=0
for program in "$@"; do
  header=$(readelf -hW "$program")
  segments=$(readelf -lW "$program")
  dynamic=$(readelf -dW "$program")
  symbols=$(readelf --dyn-syms -W "$program")

  # expect WHAT TEXT PATTERN
  expect() {
    grep -Eq "$3" <<<"$2" && return
    echo "$program: $1" >&2
    failed=1
  }
  expect "not position-independent" "$header" 'Type: +DYN'
  expect "not marked as such a program" "$dynamic" 'FLAGS_1.*PIE'
  expect "relocations not read-only" "$segments" 'GNU_RELRO'
  expect "relocations not bound at start" "$dynamic" 'FLAGS_1.*NOW'
  expect "executable stack" "$segments" 'GNU_STACK.* RW +0x'
  expect "no stack protector" "$symbols" '__stack_chk_fail'
  expect "no checked library calls" "$symbols" '__(v?s?n?printf|f?puts|read|mem[a-z]+|fdelt)_chk'
  grep -q 'Machine: .*X86-64' <<<"$header" &&
    expect "jumps not checked by the processor" \
      "$(objdump -d --disassemble=main "$program")" 'endbr64'
done
exit $failed
