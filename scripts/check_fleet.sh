#!/usr/bin/env bash
# Tries what velcheck has for a whole fleet: its page in Chromium, the Ansible
# playbook, the systemd units, alert rules and dashboard of examples/fleet. Each
# part says so where it cannot run.
#
#   scripts/check_fleet.sh VELCHECK VELSTANDIN [SCREENSHOTS]
#
# SCREENSHOTS is a folder that keeps the pictures of the page.
set -euo pipefail

[ $# -ge 2 ] || { sed -n '2,8s/^# \{0,1\}//p' "$0" >&2; exit 2; }
velcheck=$(realpath "$1")
velstandin=$(realpath "$2")
work=$(mktemp -d)
pictures=$work/pictures
[ $# -lt 3 ] || pictures=$(realpath "$3")
mkdir -p "$pictures"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

servers=()
clean_up() {
  [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}" 2>/dev/null
  rm -rf "$work"
}
trap 'clean_up || true' EXIT

skip() { echo "SKIPPED: fleet: $1" >&2; }

# start_server ADDRESS OPTION...: the server's name in $server.
start_server() {
  local log=$work/server-${#servers[@]}
  : >"$log"
  "$velstandin" --listen "$1" --port 0 --no-discovery "${@:2}" >"$log" &
  servers+=($!)
  until grep -q '^Listening' "$log"; do
    kill -0 "${servers[-1]}"
    sleep 0.05
  done
  server=$1:$(sed -n '1s/^Listening on [^:]*:\([0-9]*\).*/\1/p' "$log")
}

# expect STATUS COMMAND...
expect() {
  local status=0
  "${@:2}" || status=$?
  [ "$status" -eq "$1" ] || {
    echo "status $status instead of $1: ${*:2}" >&2
    return 1
  }
}

# Names of all kinds: those of hosts, and those that would be glad to run.
write_agents() {
  local i
  for i in {1..12}; do echo "web$i"; done
  printf '%s\n' 'db1 customers' 'db1 archive' \
    '<script>window.hacked=1</script>' \
    '"><img/src=x/onerror=window.hacked=1> '"'"'onfocus=window.hacked=1' \
    '</style><svg/onload=window.hacked=1>' \
    $'exe.\u202Egnp \u2067\u200Bback' 'Grüße-日本'
}

try_page() {
  need_packages chromium nodejs || { skip "page: no Chromium or Node.js"; return; }
  command -v npm >/dev/null || need_packages npm || { skip "page: no npm"; return; }
  cp tests/page/* "$work/page"
  (cd "$work/page" && npm ci --ignore-scripts --no-audit --no-fund \
    --loglevel=error) || { skip "page: axe-core cannot be had"; return; }
  node "$work/page/check_page.mjs" "$work/fleet.html" "$work/fleet.json" \
    "$work/big.html" "$pictures"
}

# --- One desk -----------------------------------------------------------------

echo "fleet: one desk"
start_server 127.0.0.1
good=$server
start_server 127.0.0.2 --node web1 --node web2 --node web3 --node web10 \
  --reason $'No Node <b>for</b> \e[31m\u202Eyou\u202C & "yours"'
picky=$server
start_server 127.0.0.3 --auth password
other=$server
mkdir "$work/page"
write_agents >"$work/agents"
expect 1 "$velcheck" --agents-from "$work/agents" "$good" "$picky" "$other" \
  127.0.0.4:1 --json --output "$work/fleet.json" --html "$work/fleet.html"
printf 'host-%s\n' {1..1000} >"$work/many"
expect 1 "$velcheck" --agents-from "$work/many" "$good" 127.0.0.4:1 127.0.0.5:1 \
  127.0.0.6:1 127.0.0.7:1 --rate 10000 --output "$work/big.txt" --html "$work/big.html"
try_page
