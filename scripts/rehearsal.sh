#!/usr/bin/env bash
# Makes each kind of trouble that velstandin knows and prints what the programs
# then show: the second half of docs/rehearsal.md.
#
#   scripts/rehearsal.sh [BUILD]           build/release
#   scripts/rehearsal.sh --write [BUILD]   puts it into the page
#
# A scan asks every network that the host has, so this runs in a network of its
# own with nothing but loopback; --here says that it has one
# already.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
page=docs/rehearsal.md
mark='<!-- From here on scripts/rehearsal.sh writes. -->'

if [ "${1-}" = --write ]; then
  part=$("${BASH_SOURCE[0]}" "${2-build/release}")
  { sed "\|^$mark\$|q" $page && printf '\n%s\n' "$part"; } >$page.new
  mv $page.new $page
  exit
fi
if [ "${1-}" != --here ]; then
  # shellcheck disable=SC2016
  exec unshare -rn sh -c 'ip link set lo up && exec "$@"' \
    sh "${BASH_SOURCE[0]}" --here "${1-build/release}"
fi
velstandin=$2/tools/standin/velstandin
velprobe=$2/src/driver/velprobe
velcheck=$2/tools/check/velcheck
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Arguments and options that make a kind quick to show.
shown_as() {
  case $1 in
    silent | endless) echo "$1 --session-limit 1" ;;
    slow) echo slow:10 ;;
    late) echo late:200 ;;
    deep | filler) echo "$1:10000" ;;
    *) echo "$1" ;;
  esac
}

# What is the same of every kind, or never the same, is left out.
plain() {
  sed -E '/^(Trying to|Will scan)/d; /^It appears/,/^checked in agent/d
    /^Found the following/,$d; /^$/d' | cat -v
}
plain_log() {
  sed -E '/^Listening|Z (Summary|Node)/d; s/^[^ ]+ [^ ]+: //; s/; [0-9]+ ms$//' | uniq
}

# show KIND OPERATION SERVERS OPTION...
show() {
  local check=$velcheck operation=$2 servers=$3 at=$work/$1 num_sessions=1 pid port
  shift 3
  mkdir "$at"
  touch "$at/log"
  [ "$operation" = test ] || check=
  [ -z "$check" ] || num_sessions=2
  "$velstandin" --port 0 --sessions "$num_sessions" --trouble "$@" >"$at/log" &
  pid=$!
  until port=$(sed -n '1s/^Listening on .*://p' "$at/log") && [ "$port" ]; do
    kill -0 $pid
    sleep 0.05
  done
  printf 'name=web1\ndomain=.\nserver_list=%s\nserver_port=%s\n' \
    "$servers" "$port" >"$at/agent.conf"
  "$velprobe" "$at/agent.conf" "$operation" <<<n >"$at/velprobe"
  if [ "$check" ]; then
    "$check" --timeout 3 --config "$at/agent.conf" >"$at/velcheck" || true
  fi
  # Nobody comes to a server that cannot be found.
  [[ $at != *-damaged && $at != *-other-address ]] || kill $pid
  wait $pid
  # shellcheck disable=SC2016
  printf '```console\n$ velstandin --trouble %s\n' "$*"
  plain_log <"$at/log"
  printf '$ velprobe agent.conf %s\n' "$operation"
  plain <"$at/velprobe"
  if [ "$check" ]; then
    printf '$ velcheck --config agent.conf\n'
    sed -E 's/ *\|.*//; s/(127\.0\.0\.1):[0-9]+/\1:3241/g
      s/ \[[0-9.]+s\]$//' "$at/velcheck"
  fi
  # shellcheck disable=SC2016
  echo '```'
}

# The options' last part lists the kinds, help in the same or the next line.
"$velstandin" --help | sed -n '/^TROUBLE is/,/^$/p' |
  sed -E -e '/^  [a-z]\S*$/{N;s/\n//}' -n -e 's/^  ([a-z]\S*) +(.*)/\1\t\2/p' \
    >"$work/kinds"
jobs=()
while IFS=$'\t' read -r usage help; do
  kind=${usage%%[*}
  read -ra options < <(shown_as "$kind")
  case $kind in
    discovery-*) show "$kind" configure localhost "${options[@]}" ;;
    *) show "$kind" test 127.0.0.1 "${options[@]}" ;;
  esac >"$work/$kind.part" &
  jobs+=($!)
done <"$work/kinds"
for job in "${jobs[@]}"; do wait "$job"; done
while IFS=$'\t' read -r usage help; do
  # shellcheck disable=SC2016
  printf '### `%s`: %s\n\n' "$usage" "$help"
  cat "$work/${usage%%[*}.part"
  echo
done <"$work/kinds"
