#!/usr/bin/env bash
# Tries the dissector with tshark: on the hex dumps of docs/protocol.md, the
# request cut in two segments, and on a capture of real sessions of velprobe
# with velstandin, in a network of their own. Says so where a part cannot run.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/../.."
skip() {
  echo "SKIPPED: dissector $1" >&2
  exit 0
}
for program in tshark text2pcap dumpcap; do
  command -v "$program" >/dev/null || skip "not tried: no $program here"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Wireshark 4.4 and later run no Lua for root: as root, tshark runs as nobody,
# who has to reach everything that it reads.
cp tools/wireshark/velprobe.lua "$work"
as_nobody=()
if [ "$(id -u)" -eq 0 ]; then
  chmod 755 "$work"
  as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
fi

# read_capture CAPTURE OPTION...
read_capture() {
  chmod 644 "$1"
  HOME=$work "${as_nobody[@]}" tshark -X lua_script:"$work/velprobe.lua" \
    -r "$@" 2>"$work/errors"
  ! grep -i lua "$work/errors" >&2
}

# shown CAPTURE OPTION...: what the dissector makes of each packet. Wireshark 4.0
# adds a remark of its own to a segment.
shown() {
  read_capture "$@" \
    -Y 'veltra or veltra_discovery' -T fields -E separator=';' \
    -e _ws.col.Info -e veltra.client_private_key.name \
    -e veltra.negotiate_nack.reason -e veltra_discovery.checksum \
    -e _ws.expert.message | sed 's/ \[TCP segment of a reassembled PDU\]//'
}

# dump TITLE: the bytes of one hex dump of the page.
dump() {
  sed -n "/^\`\`\`hex $1\$/,/^\`\`\`\$/p" docs/protocol.md | grep -v '^```' |
    sed 's/^ *//; s/  .*//' | xargs
}

# The rows of the page for what a session shows by its tag alone: messages of
# the application class, and what stands inside the first two.
# shellcheck disable=SC2016  # the backquotes are the page's
check_tables() {
  diff <(sed -nE '/^### Authent/,/^###/{p}
      s/^(\|[^|]*){2}\| (6|7).*/&/p' docs/protocol.md |
    sed -nE 's/^\| `([^`]+)` \| ([0-9]+) \| [^|]+\| [a-z]+ \| (.*) \|$/[\2] \1, \3/p' |
    sed -E 's/, none$//; s/`//g; s/ -?[0-9][0-9.]*(,|$)/\1/g' | sort) \
    <(sed -nE 's/^ +(\[[0-9]+\]) = \{(.*)\},$/\1 \2/p' tools/wireshark/velprobe.lua |
      tr -d '"' | grep -v '%' | sort)
}

check_page() {
  local request=() title
  read -ra request < <(dump 'client request')
  { echo "0000 ${request[*]:0:12}"; echo "0000 ${request[*]:12}"; } |
    text2pcap -q -T 50000,3241 - "$work/request.pcap" 2>/dev/null
  for title in 'server offer' 'server refusal'; do
    echo "0000 $(dump "$title")"
  done | text2pcap -q -T 3241,50000 - "$work/answers.pcap" 2>/dev/null
  for title in 'discovery query' 'discovery answer'; do
    echo "0000 $(dump "$title")"
  done | text2pcap -q -u 50000,3241 - "$work/discovery.pcap" 2>/dev/null

  diff - <(for part in request answers discovery; do
    shown "$work/$part.pcap"
  done) <<'END'
client_wants;;;;The message does not end in this segment
client_wants;host1.example.org;;;
server_offers;;;;
negotiate_nack;;No Node of this name;;
query;;;0x4ac535d6;
answer;;;0xd3cc646c;
END
  [ -z "$(shown "$work/request.pcap" -o veltra.port:1)" ]

  # Fields have types, and a message without fields can be found as well.
  [ -n "$(read_capture "$work/request.pcap" -Y 'veltra.message == "client_wants"
    && veltra.client_private_key.testing == 1
    && veltra.client_wants.version < 0x0300')" ]
  # A session that ends inside its request.
  echo "0000 ${request[*]:0:40}" |
    text2pcap -q -T 50000,3241 - "$work/cut.pcap" 2>/dev/null
  read_capture "$work/cut.pcap" -V -Y veltra.incomplete |
    grep -q '^ *name: host1.example.org$'
}

# Run in a network of its own, so that no query leaves this machine.
record_sessions() {
  ip link set lo up
  cd "$work"
  dumpcap -q -i lo -w sessions.pcap 2>/dev/null &
  local dumpcap=$!
  until [ -s sessions.pcap ]; do sleep 0.1; done
  velstandin --sessions 1 >standin &
  until [ -s standin ]; do sleep 0.1; done
  touch agent.conf
  echo n | velprobe agent.conf configure
  wait $!
  velstandin --sessions 1 --node other --reason no >refusing &
  until [ -s refusing ]; do sleep 0.1; done
  printf 'name=kö\nserver_list=127.0.0.1\n' >agent.conf
  velprobe agent.conf test
  sleep 1
  kill -INT "$dumpcap"
  wait
}

check_sessions() {
  command -v ip >/dev/null || skip "not tried on real sessions: no ip here"
  unshare -rn true 2>/dev/null ||
    skip "not tried on real sessions: no network of its own to be had"
  cmake --preset release >/dev/null
  cmake --build --preset release --target velprobe velstandin >/dev/null
  export work PATH=$PWD/build/release/src/driver:$PWD/build/release/tools/standin:$PATH
  export -f record_sessions
  timeout 60 unshare -rn bash -euc record_sessions >"$work/log" 2>&1 ||
    { cat "$work/log" >&2; exit 1; }

  # A second query may be on its way before the answers are read.
  diff - <(shown "$work/sessions.pcap" | sed 's/^\(query\|answer\);.*/\1/' |
    uniq | awk '/query|answer/ && seen[$0]++ {next} {print}') <<'END'
query
answer
client_wants;127.0.0.1;;;
server_offers;;;;
negotiate_ack;;;;
client_wants;kö;;;
negotiate_nack;;no;;
END
}

check_tables
check_page
check_sessions
echo "dissector: all well"
