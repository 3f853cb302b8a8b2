#!/usr/bin/env bash
# Measures velcheck beside velprobe, all in one run on this host's loopback, and
# prints the section of docs/benchmarks.md about it.
#
#   scripts/bench_velcheck.sh [BUILD]    build/release
#
# A black hole is a listening socket whose queue is full: packets to it are
# dropped. velprobe takes more than two minutes for each of three.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
need_packages python3 time

build=$(realpath "${1:-build/release}")
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
PATH=$build/src/driver:$build/tools/standin:$build/tools/check:$PATH

# hosts NETWORK COUNT: as many addresses of loopback, 127.NETWORK.x.y.
hosts() {
  local i
  for ((i = 0; i < $2; ++i)); do
    echo "127.$1.$((i / 250)).$((i % 250 + 1))"
  done
}

# wait_for FILE PATTERN
wait_for() {
  until grep -q "$2" "$1" 2>/dev/null; do sleep 0.05; done
}

# stand_in ADDRESS PORT: sets $port to the one it got.
stand_in() {
  velstandin --listen "$1" --port "$2" --no-discovery >"standin-$1" &
  wait_for "standin-$1" '^Listening'
  port=$(sed -n 's/^Listening on .*://p' "standin-$1")
}

dig_holes='
import socket, sys, time
keep = []
for host in sys.stdin.read().split():
    hole = socket.socket()
    hole.bind((host, int(sys.argv[1])))
    hole.listen(0)
    keep.append(hole)
    for _ in range(2):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex((host, int(sys.argv[1])))
        keep.append(client)
time.sleep(0.5)
print("ready", flush=True)
time.sleep(86400)
'

# dig_holes_at NETWORK COUNT PORT
dig_holes_at() {
  hosts "$1" "$2" | python3 -c "$dig_holes" "$3" >"holes-$1" &
  wait_for "holes-$1" ready
}

# measure WHAT COMMAND...: its time and memory as a row, its output in the file
# out. The status of velcheck is its verdict.
measure() {
  /usr/bin/time -q -o taken -f '%e %M' "${@:2}" >out 2>&1 || true
  local seconds kilobytes
  read -r seconds kilobytes <taken
  printf '| %s | %s s | %s MiB |\n' "$1" "$seconds" \
    "$(((kilobytes + 1023) / 1024))"
}

# expect PATTERN: what the command measured last printed.
expect() {
  grep -q -e "$1" out || {
    cat out >&2
    exit 1
  }
}

# config PORT HOST...: an agent.conf.
config() {
  local IFS=,
  printf 'name=a\nserver_port=%s\nserver_list=%s\n' "$1" "${*:2}"
}

cat <<END
## velcheck

By \`scripts/bench_velcheck.sh\`, in one run on $(date -u +%F): $(nproc) cores,
Linux $(uname -r), load $(cut -d' ' -f1 /proc/loadavg) when it began. All servers
are on loopback; a black hole swallows every packet. Times are by the clock, with
the start of the program; memory is the largest resident size of one process.

| run | time | memory |
|---|---|---|
END

# Half a roll-out: 45 stand-ins on one port, and 3 black holes among them.
stand_in 127.20.0.1 0
mixed_port=$port
mapfile -t good < <(hosts 20 45)
for host in "${good[@]:1}"; do stand_in "$host" "$mixed_port"; done
dig_holes_at 9 3 "$mixed_port"
mapfile -t holes < <(hosts 9 3)
config "$mixed_port" "${good[@]:0:22}" "${holes[@]}" >first
config "$mixed_port" "${good[@]:22}" >second
measure '48 servers, 3 of them black holes: velprobe, two files' \
  sh -c 'velprobe first test; velprobe second test'
expect 'Connection timed out'
measure '48 servers, 3 of them black holes: velcheck -t 2' \
  velcheck -p "$mixed_port" -n a -t 2 "${good[@]}" "${holes[@]}"
expect '^VELCHECK WARNING - 45 of 48 '

stand_in 0.0.0.0 0
hosts 30 10000 | sed "s/$/:$port/" >many
head -n 500 many >some
measure '500 accepting servers: velprobe, one process a server, 64 at once' \
  sh -c "sed 's/:.*//' some | xargs -P 64 -I{} sh -c \
    'printf \"name=a\\nserver_port=$port\\nserver_list={}\\n\" >conf-{}
     velprobe conf-{} test'"
expect 'Connecting to server: OK.'
measure '500 accepting servers: velcheck' \
  velcheck --servers-from some -n a
expect '^VELCHECK OK - 500 of 500 '

# A line of an agent.conf holds some thirty addresses.
mkdir lists
sed 's/:.*//' many | split -l 30 - lists/
for list in lists/*; do
  mapfile -t list_hosts <"$list"
  config "$port" "${list_hosts[@]}" >"$list.conf"
done
# Written for the shell that xargs starts.
# shellcheck disable=SC2016
measure '10,000 probes at one stand-in: two copies of velprobe, 30 a file' \
  sh -c 'ls lists/*.conf | xargs -n 1 -P 2 sh -c "velprobe \$0 test"'
[ "$(grep -c 'Connecting to server: OK.' out)" = 10000 ]
measure '10,000 probes at one stand-in: velcheck' \
  velcheck --servers-from many -n a -t 60
expect '^VELCHECK OK - 10000 of 10000 '

hole_port=$((port == 65535 ? port - 1 : port + 1))
dig_holes_at 10 1000 "$hole_port"
hosts 10 1000 | sed "s/$/:$hole_port/" >holes
measure '1,000 black holes: velcheck -j 1000 -t 3' \
  velcheck --servers-from holes -n a -j 1000 -t 3
expect 'timeout=1000'
