#!/usr/bin/env bash
# Looks for reads of uninitialised memory, which the sanitizers do not see: the
# tests of what takes bytes from outside, and both operations of velprobe
# against velstandin, under valgrind.
#
#   scripts/check_valgrind.sh [BUILD]    build/release
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

need_packages valgrind
build=${1:-build/release}
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server"; rm -rf "$work"' EXIT
checked=(valgrind --quiet --error-exitcode=99)

# expect TEXT COMMAND...: succeeds under valgrind, with the text in its output.
expect() {
  local text=$1
  shift
  if ! "${checked[@]}" "$@" >"$work/log" 2>&1 ||
    ! grep -qF "$text" "$work/log"; then
    cat "$work/log" >&2
    exit 1
  fi
}

for test in util config console net discovery protocol messages; do
  # Filling a socket takes valgrind half a minute.
  expect '[  PASSED  ]' "$build/tests/${test}_test" \
    --gtest_filter=-Connection.FullPeer*
done

# Before the server, which may take its time to write.
: >"$work/server"
"${checked[@]}" "$build/tools/standin/velstandin" --port 0 --no-discovery \
  --node good >"$work/server" &
server=$!
until grep -q '^Listening' "$work/server"; do
  kill -0 "$server"
  sleep 0.1
done
port=$(sed -n 's/^Listening on .*://p' "$work/server")
for name in good bad; do
  printf 'server_port=%s\nserver_list=127.0.0.1\nname=%s\n' "$port" $name \
    >"$work/$name"
done
program=$build/src/driver/velprobe
expect 'Connecting to server: OK.' "$program" "$work/good" test
expect 'Veltra Server rejected us: ' "$program" "$work/bad" test
expect 'updated.' "$program" "$work/bad" configure < <(printf 'n\ny\n')
kill "$server"
wait "$server"
server=
