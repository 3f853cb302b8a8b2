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
// result is success. A file that another process has between two names is
// waited for, five seconds at most. A successful read deletes "<path>.tmp" and
// "<path>.bak", but not beside another process that is rewriting the file, nor
// on a network file system.
//
// Rewriting replaces the value in each line that assigns a known key, keeps
// every other byte, appends a line for each key that the file lacks, and leaves
// the previous file as "<path>.bak". Who may do what with the new file is as
// with the old one, as far as the process may arrange it, but no set-ID bit is
// kept; whoever could not read the old file cannot read the new one. Values
// that went into a line of the file are released; those of appended lines stay.
// The old file stays whole, at path or as "<path>.bak", until the new one is on
// the disk and at path. A failure leaves path as it was, and a "<path>.tmp" may
// remain. A file that can be looked at but not read counts as an empty one:
// what it held is then only in "<path>.bak", until the next read. While another
// process holds the lock on the file, a rewrite waits, five seconds at most,
// and then goes on without deleting a "<path>.tmp" that is in its way.
//
// Both names are cut at 255 characters. When they cannot be told from each
// other or from path any more, a read deletes nothing and a rewrite fails.
//
// Failures of both: "Could not open configuration file %s: %s" (path, system's
// text), also for a read error, for a file of more than 64 MiB, and when what a
// rewrite finds is no regular file.
// Of reading: "Error from input_line: %s"; "Out of memory".
// Of rewriting: "Error opening %s: %s" (temporary file, system's text), also
// when the owner and the mode of path are not to be had, or when path is
// between two names to the end; "Error writing to %s: %s" (the same); "No value
// supplied for key %s", when the file assigns a key that has no value or
// assigns a key twice; "Could not rename %s to %s: %s" (the two names, system's
// text); "Catastrophic error renaming %s: %s" (path, system's text), when the
// new file is at "<path>.tmp", the old one at "<path>.bak" and none at path.
ErrorText process_config_file(const char* path, ConfigKey* keys,
                              ConfigMode mode);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_AGENT_CONFIG_H_
