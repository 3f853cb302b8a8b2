#!/usr/bin/env bash
# Builds velprobe and runs it.
#
#   scripts/run.sh                              a rehearsal against velstandin
#   scripts/run.sh agent.conf test|configure    your own file
#
# Missing packages are installed first. With your own file, output and exit
# status are velprobe's; everything else goes to standard error.
set -euo pipefail

usage() {
  sed -n '2,8s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
}
# Here velprobe's own complaint would come after the build.
case $#:${1-}:${2-} in
  1:-h: | 1:--help:) usage && exit ;;
  0:: | 2:*:test | 2:*:configure) ;;
  *) usage >&2 && exit 1 ;;
esac

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/packages.sh"

# quietly COMMAND...: what it says is shown only when it fails.
quietly() {
  "$@" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    exit 1
  }
}

build() {
  need_packages "${build_packages[@]}"
  echo "Building in build/run; the first time takes a minute or two." >&2
  quietly cmake -S "$root" --preset release -B "$root/build/run" \
    -DVELPROBE_TESTS=OFF
  quietly cmake --build "$root/build/run" --target velprobe velstandin
}

rehearse() {
  # It ends with the session, and after a while without one.
  : >"$work/standin"
  timeout 30 velstandin --port 0 --no-discovery --sessions 1 >"$work/standin" &
  local standin=$! line=
  until grep -q '^Listening' "$work/standin"; do
    kill -0 "$standin"
    sleep 0.05
  done
  line=$(head -n 1 "$work/standin")
  sed "s/^server_port=.*/server_port=${line##*:}/" \
    "$root/docs/agent.conf.sample" >"$work/agent.conf"

  echo "\$ velprobe agent.conf test"
  local status=0
  (cd "$work" && velprobe agent.conf test) || status=$?
  echo "exit status: $status"
  wait "$standin" || true
  echo "velstandin saw:"
  cat "$work/standin"
}

work=$(mktemp -d)
trap 'rm -rf "$work"; kill $(jobs -p) 2>/dev/null || true' EXIT
build
PATH=$root/build/run/src/driver:$root/build/run/tools/standin:$PATH

if [ $# -eq 0 ]; then
  rehearse
else
  velprobe "$@"
fi
