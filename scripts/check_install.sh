#!/usr/bin/env bash
# Builds what is installed, each header by itself, and installs it into a folder
# of its own. Uses what is there: manual pages, completion, what the library
# shows, and the example programs, by CMake and by pkg-config.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
. scripts/packages.sh
need_packages "${build_packages[@]}" "${test_packages[@]}" mandoc man-db \
  binutils pkg-config
work=$(mktemp -d)
trap 'rm -rf "$work"; kill $(jobs -p) 2>/dev/null || true' EXIT

build_and_install() {
  cmake --preset release >/dev/null
  cmake --build --preset release --target \
    velprobe velcheck velstandin velprobe_shared velprobe_static \
    all_verify_interface_header_sets >"$work/log" ||
    { cat "$work/log" >&2; return 1; }
  # Everything is found relative to where it stands, so the tree may move.
  cmake --install build/release --prefix "$work/first" >/dev/null
  mv "$work/first" "$work/prefix"
}

# Nothing that users look for is missing.
check_files() {
  local file
  for file in bin/velprobe bin/velcheck bin/velstandin \
    share/man/man1/{velprobe,velcheck}.1 \
    share/man/man1/velstandin.1 share/man/man3/libvelprobe.3 \
    share/man/man5/agent.conf.5 share/man/man7/velprobe-troubleshooting.7 \
    share/doc/velprobe/{agent.conf.sample,CHANGELOG.md,troubleshooting.md} \
    "$libdir/libvelprobe.a" "$libdir/pkgconfig/velprobe.pc"; do
    [ -f "$file" ] || { echo "not installed: $file" >&2; return 1; }
  done
}

check_manual_pages() {
  local page lint
  for page in share/man/man?/*; do
    # The other pages are not installed on the system yet.
    lint=$(mandoc -T lint -W style "$page" |
      grep -v 'referenced manual not found' || true)
    lint+=$(man --warnings -Tutf8 -l "$page" 2>&1 >/dev/null)
    [ -z "$lint" ] || { echo "$lint" >&2; return 1; }
  done
}

# bash_offers PROGRAM WORD...: what bash completes the last word to.
bash_offers() {
  bash -c '. share/bash-completion/completions/"$0"
    COMP_WORDS=("$0" "$@") COMP_CWORD=$#
    "_$0"
    echo "${COMPREPLY[*]}"' "$@"
}

# zsh_offers LINE TEXT: whether zsh shows TEXT for a tab behind LINE.
zsh_offers() {
  timeout 20 zsh -f /dev/stdin "$@" <<'END'
zmodload zsh/zpty
zpty shell zsh -fi
zpty -w shell 'fpath=($PWD/share/zsh/site-functions $fpath)
  autoload -Uz compinit; compinit -uD; print rea""dy'
zpty -r shell answer $'*ready\r*'
zpty -w -n shell $1$'\t'
zpty -r shell answer "*$2*"
END
}

check_completion() {
  local PATH=$PWD/bin:$PATH
  [ "$(bash_offers velprobe agent.conf '')" = 'test configure' ]
  [ "$(bash_offers velprobe agent.conf c)" = configure ]
  [ "$(bash_offers velstandin --of)" = --offer-version ]
  [ "$(bash_offers velstandin --auth p)" = 'private-key password' ]
  [ "$(bash_offers velstandin --auth = p)" = 'private-key password' ]
  [ -z "$(bash_offers velstandin --port '')" ]
  command -v zsh >/dev/null || {
    echo "SKIPPED: completion not tried in zsh: no zsh here" >&2
    return
  }
  zsh_offers 'velprobe agent.conf c' 'velprobe agent.conf configure'
  zsh_offers 'velprobe agent.conf ' 'probe the configured servers'
  zsh_offers 'velstandin --of' '--offer-version'
  zsh_offers 'velstandin --auth ' 'none*password*private-key'
  zsh_offers 'velstandin --auth=pa' '--auth=password'
}

# What the headers show is there to be linked, under the soname's version, and
# nothing else. Which names those are, the packages check.
check_exports() {
  local exports library=$libdir/libvelprobe.so soname
  soname=$(readelf -d "$library" | sed -n 's/.*soname: \[\(.*\)\]/\1/p')
  [[ $soname = libvelprobe.so.[0-9]* ]]
  exports=$(nm -D --defined-only --with-symbol-versions "$library" |
    grep -v " A VELPROBE_${soname##*.}\$")
  if grep -Ev " _ZNK?8velprobe.*@@VELPROBE_${soname##*.}\$" \
    <<<"$exports"; then
    echo "the above should not be visible" >&2
    return 1
  fi
}

# talk PROGRAM: what PROGRAM hears from a stand-in.
talk() {
  : >"$work/standin"
  timeout 20 bin/velstandin --port 0 --no-discovery --sessions 1 "${@:2}" \
    >"$work/standin" &
  for _ in $(seq 100); do
    [ -s "$work/standin" ] && break
    sleep 0.05
  done
  "$1" 127.0.0.1 "$(sed -n '1s/.*://p' "$work/standin")"
  wait
}

# is_below LINES FILE
is_below() {
  [ "$(wc -l <"$2")" -lt "$1" ] || {
    echo "an example should stay below $1 lines: $2" >&2
    return 1
  }
}

check_examples() {
  cmake -S "$root/examples" -B "$work/example" -G Ninja \
    -DCMAKE_PREFIX_PATH="$PWD" >/dev/null
  cmake --build "$work/example" >/dev/null
  local flags
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  [ "velstandin $(pkg-config --modversion velprobe)" = \
    "$(bin/velstandin --version)" ]
  flags=$(pkg-config --define-prefix --cflags --libs velprobe)
  # shellcheck disable=SC2086  # the flags are words
  g++ -std=c++20 -o "$work/example/by_pkg_config" \
    "$root/examples/say_hello.cpp" $flags -Wl,-rpath,"$libdir"

  local program
  for program in say_hello say_hello_static by_pkg_config; do
    [ "$(talk "$work/example/$program")" = 'offered: version 0x0202' ]
    [ "$(talk "$work/example/$program" --node x --reason no)" = 'refused: no' ]
  done
  is_below 60 "$root/examples/say_hello.cpp"
  for program in show_message show_message_static; do
    [ "$("$work/example/$program" x 3241)" = \
      $'30 80 04 01 78 02 02 0C A9 00 00 \nx port 3241' ]
  done
  [ "$(check_in "$work/example/serve_agents")" = 'Connecting to server: OK.' ]
  is_below 80 "$root/examples/serve_agents.cpp"
}

# check_in SERVER: what velprobe says to a server on loopback.
check_in() {
  timeout 20 "$1" 0 >"$work/server" &
  for _ in $(seq 100); do
    [ -s "$work/server" ] && break
    sleep 0.05
  done
  printf 'name=a\nserver_list=127.0.0.1\nserver_port=%s\n' \
    "$(sed -n '1s/.*://p' "$work/server")" >"$work/agent.conf"
  bin/velprobe "$work/agent.conf" test | sed -n 2p
  kill %%
}

build_and_install
cd "$work/prefix"
libdir=$(dirname "$(find "$PWD" -name libvelprobe.so)")
check_files
check_manual_pages
check_completion
check_exports
check_examples
echo "install tree: all well"
