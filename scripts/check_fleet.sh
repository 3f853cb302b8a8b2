#!/usr/bin/env bash
# Tries what velcheck has for a whole fleet: its page in Chromium, the Ansible
# playbook, the systemd units, alert rules and dashboard of examples/fleet. Each
# part says so where it cannot run.
#
#   scripts/check_fleet.sh [BUILD [PICTURES]]    build/release
#
# PICTURES is a folder that keeps those of the page and what else docs/fleet.md
# shows.
set -euo pipefail

work=$(mktemp -d)
pictures=$work/pictures
[ $# -lt 2 ] || pictures=$(realpath -m "$2")
mkdir -p "$pictures"
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$(realpath "${1:-build/release}")
velcheck=$build/tools/check/velcheck
velstandin=$build/tools/standin/velstandin
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

# write_example FOLDER: what docs/fleet.md shows, page.html and text, from three
# servers of one network of its own, one of which does not run.
write_example() {
  printf '%s\n' '127.0.0.2 veltra-a' '127.0.0.3 veltra-b' '127.0.0.4 veltra-c' \
    >"$1/hosts"
  printf '%s\n' web{1..8} db1 db2 mail1 >"$1/names"
  # shellcheck disable=SC2016
  unshare --map-root-user --mount --net --uts bash -euc '
    mount --bind "$1/hosts" /etc/hosts
    hostname desk
    ip link set lo up
    "$3" --listen 127.0.0.2 --no-discovery >"$1/a" &
    nodes=$(grep -Ev "web7|db2" "$1/names" | sed "s/^/--node /")
    "$3" --listen 127.0.0.3 --no-discovery $nodes \
      --reason "No Node of this name" >"$1/b" &
    until grep -q "^Listening" "$1/a" && grep -q "^Listening" "$1/b"; do
      sleep 0.05
    done
    "$2" --agents-from "$1/names" veltra-a veltra-b veltra-c \
      --html "$1/page.html" >"$1/text" || true
    kill %1 %2
  ' write_example "$1" "$velcheck" "$velstandin"
}

try_page() {
  need_packages chromium nodejs || { skip "page: no Chromium or Node.js"; return; }
  command -v npm >/dev/null || need_packages npm || { skip "page: no npm"; return; }
  cp tests/page/* "$work/page"
  (cd "$work/page" && npm ci --ignore-scripts --no-audit --no-fund \
    --loglevel=error) || { skip "page: axe-core cannot be had"; return; }
  node "$work/page/check_page.mjs" "$work/fleet.html" "$work/fleet.json" \
    "$work/big.html" "$pictures"
  mkdir "$work/example"
  if command -v ip >/dev/null && write_example "$work/example" 2>/dev/null; then
    cp "$work/example/text" "$pictures/fleet.txt"
    node "$work/page/take_picture.mjs" "$work/example/page.html" \
      "$pictures/fleet.png"
  else
    skip "picture of the documentation: no network of its own, or no iproute2"
  fi
}

try_playbook() {
  need_packages ansible-core || { skip "playbook: no ansible-core"; return; }
  local hosts=$work/hosts status=0 host
  mkdir "$hosts"
  write_config() { printf 'name=%s\nserver_list=%s\nserver_port=%s\n' "$@"; }
  start_server 127.0.0.2 --node web1 --node web2 --node web10 \
    --reason "No Node of this name"
  local port=${server#*:}
  write_config web1 127.0.0.2 "$port" >"$hosts/web1.conf"
  write_config web2 127.0.0.2,127.0.0.4 "$port" >"$hosts/web2.conf"
  write_config web10 127.0.0.2 "$port" >"$hosts/web10.conf"
  write_config db1 127.0.0.2 "$port" >"$hosts/db1.conf"
  # Of nofile there is no configuration file.
  printf '%s ansible_connection=local velcheck_config='"$hosts"'/%s.conf\n' \
    web1 web1 web2 web2 web10 web10 db1 db1 nofile nofile >"$work/inventory"
  echo 'gone ansible_host=127.0.0.9 ansible_port=1' >>"$work/inventory"
  ANSIBLE_HOME=$work/ansible ANSIBLE_LOCALHOST_WARNING=false ANSIBLE_FORKS=2 \
    ansible-playbook -i "$work/inventory" examples/fleet/check_agents.yml \
    -e velcheck_install=false -e velcheck_program="$velcheck" \
    -e velcheck_program_here="$velcheck" -e velcheck_results="$work/results" \
    >"$work/playbook.log" || status=$?
  # Three are accepted somewhere, the others fail and with them the run.
  for host in web1:0 web2:0 web10:0 db1:1 nofile:1 gone:1; do
    grep -Eq "^${host%:*} .* failed=${host#*:} " "$work/playbook.log" || status=1
  done
  grep -q 'msg: VELCHECK WARNING - 3 of 5 accepted: 4 agents' \
    <(sed 's/"//g' "$work/playbook.log") || status=1
  grep -q 'nofile.json: .*No such file' "$work/results/agents.html" || status=1
  [ "$status" -eq 2 ] || {
    cat "$work/playbook.log" >&2
    return 1
  }
  cp "$work/playbook.log" "$pictures"
}

try_units() {
  need_packages systemd || { skip "units: no systemd"; return; }
  local unit
  for unit in examples/fleet/velcheck.{service,timer}; do
    sed "s:/usr/bin/velcheck:$velcheck:" "$unit" >"$work/${unit##*/}"
  done
  systemd-analyze verify --man=no "$work"/velcheck.{service,timer}
  systemd-analyze security --offline=true --threshold=20 \
    "$work/velcheck.service" >"$work/exposure" || {
    cat "$work/exposure" >&2
    return 1
  }
}

# Each query of the dashboard is asked of the metrics of a real run and has to
# give something.
try_queries() {
  "$velcheck" --merge "$work/fleet.json" --prometheus >"$work/metrics" || true
  python3 - "$work/metrics" "$work/queries" <<'PYTHON'
import json, re, sys
series = []
for line in open(sys.argv[1], newline="\n"):
    if not line.startswith("#"):
        name, value = line.rstrip("\n").rsplit(" ", 1)
        series.append({"series": name, "values": value + "x10"})
panels = json.load(open("examples/fleet/dashboard.json"))["panels"]
for i, target in enumerate(t for panel in panels for t in panel["targets"]):
    tests = [{"interval": "1m", "input_series": series,
              "promql_expr_test": [{"expr": target["expr"], "eval_time": "5m",
                                    "exp_samples": []}]}]
    json.dump({"tests": tests}, open(f"{sys.argv[2]}/{i}.json", "w"))
PYTHON
  local query
  for query in "$work/queries"/*; do
    # Nothing is expected, so what it gives is a failure that tells it.
    promtool test rules "$query" >"$work/query.log" 2>&1 || true
    grep 'got:' "$work/query.log" | grep -Evq 'nil|\[\]' || {
      echo "a query of the dashboard gives nothing:" >&2
      cat "$work/query.log" >&2
      return 1
    }
  done
}

try_metrics() {
  need_packages prometheus python3 || { skip "metrics: no promtool"; return; }
  promtool check rules examples/fleet/velcheck.rules.yml >/dev/null
  promtool test rules examples/fleet/velcheck.rules.test.yml >/dev/null
  mkdir "$work/queries"
  try_queries
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
echo "fleet: playbook"
try_playbook
echo "fleet: units"
try_units
echo "fleet: metrics"
try_metrics
