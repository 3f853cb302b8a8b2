// The agent's configuration file: lines of key=value among comments and other
// lines, read for the values this program needs and rewritten with new ones.
//
// Syntax, line by line, a line being at most 511 bytes up to and with its line
// feed (what is longer counts as several lines):
//
//     server_list = hosta,hostb  \r\n
//     key           value        ending
//
// White space may stand around the key and in front of the value; blanks behind
// the value belong to it. A line whose first other character is "#" is a
// comment. "#" elsewhere, unknown keys and lines without "=" mean nothing.
#ifndef VELPROBE_CONFIG_AGENT_CONFIG_H_
#define VELPROBE_CONFIG_AGENT_CONFIG_H_

#include "../util/error_text.h"
#include "config_keys.h"

namespace velprobe {

enum class ConfigMode { kRead, kWrite };

// process_config_file reads the file at path into keys (the head of a list), or
// rewrites it with the values of keys.
//
// Reading sets the value of each key that the file assigns; of several lines
// with one key the last counts. When there is no file it asks on the console
// whether to create one: after a "y" every value is left as it was and the
// result is success. A successful read deletes "<path>.tmp" and "<path>.bak",
// but not beside another process that is rewriting the file.
//
// Rewriting replaces the value in each line that assigns a known key, keeps
// every other byte, appends a line for each key that the file lacks, and leaves
// the previous file as "<path>.bak". The new file has the old one's permission
// bits and, where the process may, its owner and group. Values that went into a
// line of the file are released; those of appended lines stay. The old file
// stays whole, at path or as "<path>.bak", until the new one is on the disk and
// at path. A failure leaves path as it was, and a "<path>.tmp" may remain. A
// file that cannot even be opened counts as none: what it held is then only in
// "<path>.bak", until the next read.
//
// Both names are cut at 255 characters. When they cannot be told from each
// other or from path any more, a read deletes nothing and a rewrite fails.
//
// Failures of both: "Could not open configuration file %s: %s" (path, system's
// text), also for a read error and for a file of more than 64 MiB.
// Of reading: "Error from input_line: %s"; "Out of memory".
// Of rewriting: "Error opening %s: %s" and "Error writing to %s: %s" (temporary
// file, system's text); "No value supplied for key %s", when the file assigns a
// key that has no value or assigns a key twice; "Could not rename %s to %s: %s"
// (the two names, system's text); "Catastrophic error renaming %s: %s" (path,
// system's text), when the new file is at "<path>.tmp", the old one at
// "<path>.bak" and none at path.
ErrorText process_config_file(const char* path, ConfigKey* keys,
                              ConfigMode mode);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_AGENT_CONFIG_H_
