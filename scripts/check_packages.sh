#!/usr/bin/env bash
# Builds the Debian packages, lets lintian look at them, installs them on this
# machine, uses what they bring and removes them again. The second half needs
# root and a machine without velprobe, and says so where it cannot run.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
need_packages "${build_packages[@]}" binutils lintian pkg-config

mapfile -t packages < <(./scripts/build_packages.sh)
[ ${#packages[@]} -ge 3 ]
lintian --fail-on error,warning --allow-root "${packages[@]}"

# listed_symbols LIBRARY VERSION: Debian's list as it should be, where a symbol
# that is new came with VERSION.
listed_symbols() {
  head -n 1 debian/libvelprobe1.symbols
  nm -D --defined-only --with-symbol-versions "$1" |
    sed 's/.* //; s/@@/@/; /@/!s/.*/&@&/' | LC_ALL=C sort |
    awk -v version="$2" 'NR == FNR { since[$1] = $2; next }
      { print " " $1, $1 in since ? since[$1] : version }' \
      debian/libvelprobe1.symbols -
}

# No symbol of the library comes or goes unsaid.
check_symbols() {
  local built=build/package version
  version=$(dpkg-deb -f $built/libvelprobe1_*.deb Version)
  listed_symbols $built/sources/debian/tmp/usr/lib/*/libvelprobe.so.1 \
    "$version" >$built/symbols
  diff -u debian/libvelprobe1.symbols $built/symbols || {
    echo "If that is meant: cp $built/symbols debian/libvelprobe1.symbols" >&2
    return 1
  }
}
check_symbols

skip() {
  echo "SKIPPED: packages not installed and tried: $1" >&2
  exit 0
}
mapfile -t names < <(printf '%s\n' "${packages[@]##*/}" | sed 's/_.*//')
[ "$(id -u)" -eq 0 ] || skip "not root"
[ -z "$(dpkg-query -W "${names[@]}" 2>/dev/null)" ] ||
  skip "velprobe is installed here"

work=$(mktemp -d)
clean_up() {
  jobs -p | xargs -r kill 2>/dev/null
  dpkg --purge "${names[@]}" >/dev/null 2>&1
  rm -rf "$work"
}
trap 'clean_up || true' EXIT
# By dpkg and not by apt: what they depend on has to be here already, so that
# nothing else stays behind.
dpkg --install "${packages[@]}" >"$work/dpkg.log" 2>&1 || {
  cat "$work/dpkg.log" >&2
  exit 1
}

cd "$work"
# shellcheck disable=SC2046  # the flags are words
g++ -std=c++20 -o say_hello "$OLDPWD/examples/say_hello.cpp" \
  $(pkg-config --cflags --libs velprobe)
velstandin --port 0 --no-discovery --sessions 2 >standin &
for _ in $(seq 100); do
  [ -s standin ] && break
  sleep 0.05
done
port=$(sed -n '1s/.*://p' standin)
printf 'name=a\nserver_list=127.0.0.1\nserver_port=%s\n' "$port" >agent.conf
velprobe agent.conf test | tail -n 2 |
  grep -qx 'Test completed successfully. All OK.'
[ "$(./say_hello 127.0.0.1 "$port")" = 'offered: version 0x0202' ]
wait

dpkg -L "${names[@]}" | grep velprobe >files
dpkg --purge "${names[@]}" >/dev/null
while read -r file; do
  [ ! -e "$file" ] || { echo "still there: $file" >&2; exit 1; }
done <files
echo "packages: all well"
