#!/usr/bin/env bash
# Has Prometheus' own checker read the metrics of velcheck.
#
#   scripts/check_velcheck.sh [BUILD]    build/release
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

build=${1:-build/release}
velcheck=$build/tools/check/velcheck
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server"; rm -rf "$work"' EXIT

if ! command -v promtool >/dev/null &&
  ! need_packages prometheus >"$work/apt" 2>&1; then
  echo "SKIPPED: promtool cannot be had (package prometheus)"
  exit 0
fi

# Before the server, which may take its time to write.
: >"$work/server"
"$build/tools/standin/velstandin" --port 0 --no-discovery --node good \
  >"$work/server" &
server=$!
until grep -q '^Listening' "$work/server"; do
  kill -0 "$server"
  sleep 0.05
done
port=$(sed -n 's/^Listening on .*://p' "$work/server")

# check STATUS OPTION...: velcheck ends so, and its metrics are well-formed.
check() {
  local status=0
  "$velcheck" "${@:2}" --prometheus --output "$work/metrics" || status=$?
  [ "$status" = "$1" ]
  promtool check metrics <"$work/metrics"
}

# Every result that one host can make, and a name that needs escapes.
servers=("127.0.0.1:$port" 127.0.0.1:1 name.invalid $'odd "\\name\n')
check 1 -n good "${servers[@]}"
check 1 -n good "${servers[@]}" localhost:"$port" --all-addresses
check 2 "${servers[@]}"
check 3 -f /nonexistent
echo "metrics: well"
