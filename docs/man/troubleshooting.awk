# Makes the manual page velprobe-troubleshooting(7) of docs/troubleshooting.md:
#
#   awk -v version=VERSION -f troubleshooting.awk troubleshooting.md
#
# The source holds headings, paragraphs and lists. An item begins with the texts
# that it explains, each in a line of its own that ends in "\".

# roff escapes what roff would take for its own, and sets code in bold.
function roff(text,    parts, count, i, out) {
  gsub(/\\/, "\\e", text)
  gsub(/\(\)/, "\\\\\\&()", text)
  count = split(text, parts, "`")
  for (i = 1; i <= count; i++) {
    if (i % 2 == 0) gsub(/-/, "\\-", parts[i])
    out = out (i % 2 == 1 ? parts[i] : "\\fB" parts[i] "\\fR")
  }
  return out
}

# width counts as mandoc does, which reads what is not ASCII as \[uXXXX].
function width(text) {
  gsub(/[^ -~]/, "[uXXXX].", text)
  return length(text)
}

# flush prints the paragraph collected so far: a new line after each sentence,
# as mdoc wants it, and before a line gets longer than 80 bytes.
function flush(    words, count, i, line) {
  count = split(roff(paragraph), words, " ")
  for (i = 1; i <= count; i++) {
    if (line != "" && width(line " " words[i]) > 80) {
      print line
      line = ""
    }
    line = line (line == "" ? "" : " ") words[i]
    if (words[i] ~ /[.?!]$/) {
      print line
      line = ""
    }
  }
  if (line != "") print line
  paragraph = ""
}

function explained_text(text) {
  sub(/\\$/, "", text)
  text = roff(text)
  gsub(/"/, "\\(dq", text)
  print ".It \"" text "\""
}

function end_list() {
  if (in_list) print ".El"
  in_list = 0
}

BEGIN {
  print ".Dd November 21, 2026\n.Dt VELPROBE-TROUBLESHOOTING 7"
  print ".Os velprobe " version
  print ".Sh NAME\n.Nm velprobe-troubleshooting"
  print ".Nd every text of the programs, and what to do"
  print ".Sh DESCRIPTION"
  first_in_section = 1
}
/^(\||```)/ {
  print FILENAME ":" FNR ": neither table nor block can be shown" >"/dev/stderr"
  failed = 1
  exit 1
}
/^# / { next }
/^$/ {
  flush()
  next
}
/^## / {
  end_list()
  print ".Sh " toupper(substr($0, 4))
  first_in_section = 1
  next
}
/^- / {
  flush()
  if (!first_in_section) print ".Pp"
  if (!in_list) print ".Bl -tag -width Ds -compact"
  first_in_section = 0
  in_list = 1
}
/^(- |  )`.*`\\$/ {
  explained_text(substr($0, 3))
  next
}
paragraph == "" && !/^ / {
  end_list()
  if (!first_in_section) print ".Pp"
}
{
  sub(/^ +/, "")
  paragraph = paragraph " " $0
  first_in_section = 0
}
END {
  if (failed) exit 1
  flush()
  end_list()
  print ".Sh SEE ALSO\n.Xr velprobe 1 ,\n.Xr velstandin 1 ,\n.Xr agent.conf 5"
}
