#!/usr/bin/env bash
# Checks the systemd units of packaging/: that they are understood, and how much
# of the system they leave exposed, from 0 (nothing) to 10, without a running
# systemd.
#
#   scripts/check_units.sh
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# In tenths. What is left: it speaks to the network, of any host.
most_exposure=15

if ! command -v systemd-analyze >/dev/null; then
  echo "SKIPPED: no systemd-analyze here, units are not checked" >&2
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for unit in packaging/*.service; do
  name=$(basename "$unit")
  # The program need not be installed.
  sed 's|^ExecStart=velstandin|ExecStart=/bin/true|' "$unit" >"$work/$name"
  complaints=$(systemd-analyze verify --man=no --recursive-errors=no \
    "$work/$name" 2>&1) || true
  if [ "$complaints" ]; then
    echo "$complaints" >&2
    exit 1
  fi
  systemd-analyze security --offline=yes --threshold=$most_exposure --no-pager \
    "$work/$name" >"$work/report" || {
    cat "$work/report" >&2
    exit 1
  }
  tail -n 1 "$work/report"
done
