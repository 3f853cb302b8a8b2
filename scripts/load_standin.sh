#!/usr/bin/env bash
# How much velstandin bears, on loopback, in bounded time.
#
#   scripts/load_standin.sh [compare]      sessions a second beside the server of
#                                          0.1, which served one after the other,
#                                          and a good client among silent ones
#   scripts/load_standin.sh hostile [SECONDS [SANITIZER]]
#                                          bad clients of every kind for so long
#                                          (600), under the sanitizer (address or
#                                          thread; none), and the server's memory
#                                          after a fifth of it and at the end
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

# The last commit with a server that served one after the other.
old_commit=3cff3fe
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server"; rm -rf "$work"' EXIT

# build FOLDER SOURCE TARGET [OPTION...]
build() {
  local folder=$1 source=$2 target=$3
  shift 3
  cmake -G Ninja -S "$source" -B "$folder" -DCMAKE_BUILD_TYPE=Release \
    -DVELPROBE_TESTS=OFF "$@" >/dev/null
  cmake --build "$folder" --target "$target" >/dev/null
}

# start PROGRAM OPTION...
start() {
  : >"$work/log"  # not the port of the one before
  "$@" --port 0 >"$work/log" 2>"$work/complaints" &
  server=$!
  until port=$(sed -n '1s/^Listening on .*://p' "$work/log") && [ "$port" ]; do
    kill -0 $server
    sleep 0.05
  done
}

stop() {
  kill $server
  wait $server
  server=
}

memory() {
  awk '/^VmRSS/ { print $2 " KiB" }' /proc/$server/status
}

build build/bench . standin_load -DVELPROBE_BENCH=ON
load=build/bench/bench/standin_load

if [ "${1-compare}" = hostile ]; then
  seconds=${2-600}
  program=build/bench/tools/standin/velstandin
  if [ "${3-}" ]; then
    build "build/load-$3" . velstandin -DVELPROBE_SANITIZE="$3"
    program=build/load-$3/tools/standin/velstandin
  else
    build build/bench . velstandin -DVELPROBE_BENCH=ON
  fi
  # Else the address sanitizer keeps what was freed, in all and for each thread,
  # and seems to grow.
  export ASAN_OPTIONS=quarantine_size_mb=1:thread_local_quarantine_size_kb=16
  ASAN_OPTIONS+=:malloc_context_size=0
  # Small, so that clients have to make room as well.
  start "$program" --max-sessions 12 --session-limit 2 \
    --node fast=slow:1 --trouble late:5:10% --trouble discovery-late
  $load hostile "$port" "$seconds" &
  clients=$!
  sleep $((seconds / 5))
  early=$(memory)
  status=0
  wait $clients || status=$?
  echo "memory after a fifth of the time $early, at the end $(memory)"
  stop
  sed -n 's/^[^ ]* \(Summary.*\)/\1/p' "$work/log"
  cat "$work/complaints"
  exit $status
fi

build build/bench . velstandin -DVELPROBE_BENCH=ON
mkdir "$work/source"
git archive $old_commit | tar -x -C "$work/source"
build "$work/build" "$work/source" velstandin
new=build/bench/tools/standin/velstandin
old=$work/build/tools/standin/velstandin
for clients in rate distant; do
  for round in 1 2 3; do
    start "$old" --no-discovery
    before=$($load $clients "$port" 4)
    stop
    start "$new" --no-discovery
    after=$($load $clients "$port" 4)
    stop
    echo "$clients, round $round: sessions a second $before in 0.1," \
      "$after now, $((after * 100 / before))%"
  done
done
start "$new" --session-limit 3600
silent=$($load silent "$port" 256)
echo "beside 256 silent clients: $silent, memory $(memory)"
stop
