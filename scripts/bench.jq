# Turns what Google Benchmark says in JSON into a table in Markdown; used by
# bench.sh, which tells how benchmarks are named.

def rival:
  "(?<who>velprobe[^/]*|libcrypto|gmp(_sec)?|g?libc|std_regex|tre|re2|pcre2jit)(?=/|$)";

# What a benchmark is called, cut into who works and the case.
def cut:
  (.run_name | sub("^BM_"; "")) as $name
  | ($name | [capture(rival).who][0] // "velprobe") as $who
  | . + { who: $who,
      case: ($name | sub("[/_]?" + rival; "") | ltrimstr("/")
        | gsub("[|]"; "\\|")) };

def nanoseconds:
  (if .run_name | endswith("/real_time") then .real_time else .cpu_time end)
  * { ns: 1, us: 1e3, ms: 1e6, s: 1e9 }[.time_unit];

# Three digits are as many as repeat.
def digits:
  if . >= 100 then round
  elif . >= 10 then . * 10 | round / 10
  else . * 100 | round / 100 end | tostring;

def time:
  if . >= 1e9 then (. / 1e9 | digits) + " s"
  elif . >= 1e6 then (. / 1e6 | digits) + " ms"
  elif . >= 1e3 then (. / 1e3 | digits) + " µs"
  else digits + " ns" end;

def rate:
  if . == null then "" else (. / 1e6 | digits) + " MB/s" end;

# Counters of its own, of a benchmark that compares within itself.
def counters:
  to_entries
  | map(select((.value | type) == "number" and (.key | IN("family_index",
      "per_family_instance_index", "repetitions", "repetition_index", "threads",
      "iterations", "real_time", "cpu_time", "bytes_per_second",
      "items_per_second") | not)) | "\(.key) \(.value | digits)")
  | join(", ");

def ratio($base):
  if $base == . then counters
  else (nanoseconds / ($base | nanoseconds) | digits) end;

"| Case | Program | Time | Rate | Times velprobe |",
"|:--|:--|--:|--:|--:|",
( [.benchmarks[] | select(.aggregate_name == "median") | cut]
  | sort_by(.family_index, .per_family_instance_index)
  | . as $all
  | (map(.case) | unique_by(. as $c | $all | map(.case) | index($c)))[] as $case
  | [$all[] | select(.case == $case)]
  | ([.[] | select(.who | startswith("velprobe"))][0] // .[0]) as $base
  | ([$base] + (. - [$base]))[]
  | "| \(if . == $base then $case else "" end) | \(.who) "
    + "| \(nanoseconds | time) | \(.bytes_per_second | rate) "
    + "| \(ratio($base)) |" )
