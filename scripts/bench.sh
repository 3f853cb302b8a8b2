#!/usr/bin/env bash
# Runs every benchmark and writes docs/benchmarks.md from that one run.
#
#   scripts/bench.sh [NAME...]    which ones, as in bench/NAME_bench.cpp; all
#
# With names the tables are shown and the page stays as it is. What other scripts
# measured stands behind a mark in the page and stays.
#
# A section is the comment that opens the source and a table. Benchmarks of one
# case, beside each other in the table, have the same name but for who does the
# work: a rival's name ends a part of it (power_mod_libcrypto/256, search/libc),
# and one without a rival's name is velprobe's.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
page=docs/benchmarks.md
mark='<!-- From here on by other scripts. -->'
folder=build/bench

need_packages "${build_packages[@]}" jq libbenchmark-dev libgmp-dev \
  libssl-dev libre2-dev libtre-dev libpcre2-dev >&2
cmake --preset bench >/dev/null
cmake --build --preset bench >&2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

heading() {
  cat <<END
# Benchmarks

Written by \`scripts/bench.sh\` from one run on $(date -u +%F), version $(
    sed -n 's/^project(velprobe VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt).

- Processor: $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(
    nproc) of them; load when it began: $(cut -d' ' -f1 /proc/loadavg)
- Compiler and build: $(c++ --version | head -n 1), Release as installed
- Rivals: $(rivals)

Times are medians of five, in processor time unless the name ends in real_time;
benchmarks take turns in random order. "Times velprobe" is how often as long a
rival takes as the first line of the same case: above 1, velprobe is faster.
END
}

rivals() {
  dpkg-query -W -f='${Package} ${Version}\n' libssl-dev libgmp-dev libc6 \
    libre2-dev libtre-dev libpcre2-dev |
    paste -sd , | sed 's/,/, /g'
}

# section NAME
section() {
  "$folder/bench/$1_bench" --benchmark_format=json --benchmark_min_time=0.1 \
    --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    2>"$work/log" >"$work/json" || {
    cat "$work/log" >&2
    return 1
  }
  printf '\n## %s\n\n' "$1"
  sed -n '/^\/\//!q; s/^\/\/ \{0,1\}//p' "bench/$1_bench.cpp"
  echo
  jq -r -f scripts/bench.jq "$work/json"
}

if [ $# -gt 0 ]; then
  for name in "$@"; do section "$name"; done
  exit
fi
heading >"$work/page"
for source in bench/*_bench.cpp; do
  name=$(basename "$source" _bench.cpp)
  echo "$name ..." >&2
  section "$name" >>"$work/page"
done
printf '\n' >>"$work/page"
sed -n "\|^$mark\$|,\$p" "$page" >>"$work/page"
mv "$work/page" "$page"
