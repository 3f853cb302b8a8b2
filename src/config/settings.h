// The agent's settings for those who only look at them, and what two of them
// mean. Unlike process_config_file, nothing here asks, locks, writes or
// deletes.
#ifndef VELPROBE_CONFIG_SETTINGS_H_
#define VELPROBE_CONFIG_SETTINGS_H_

#include <cstdint>
#include <string_view>

#include "../util/error_text.h"
#include "../util/text.h"

#pragma GCC visibility push(default)
namespace velprobe {

// AgentSettings is what a configuration file says, each as it stands there;
// null: the file does not say.
struct AgentSettings {
  Text domain;
  Text name;
  Text server_port;
  Text server_list;
};

// read_settings reads the file at path, which may be a pipe or a device as
// well, up to its end. The syntax is that of agent.conf(5); of several lines
// with one key the last counts. While another process replaces the file, it may
// be missing for a moment.
//
// Failures: "Could not open configuration file %s: %s" (path, system's text),
// also for a read error and for more than 64 MiB; "Out of memory".
// out_settings is then as it was.
ErrorText read_settings(const char* path, AgentSettings& out_settings);

// parse_settings takes the settings from the bytes of such a file, for a caller
// that reads it itself.
//   "Out of memory"; out_settings is then as it was.
ErrorText parse_settings(std::string_view bytes, AgentSettings& out_settings);

// parse_server_port gives the port that the text of server_port stands for: the
// low 16 bits of a number as strtol reads it with base 0, so decimal, "0x" and
// octal, up to the first other character; 0 for what is no number. A null text
// gives default_port.
std::uint16_t parse_server_port(const char* text, std::uint16_t default_port);

// split_server_list gives the names in the text of server_list as a text list
// (see next_text). Commas separate them, no blanks are trimmed, and an empty
// name ends the list. A null text gives an empty list. Null when memory runs
// out.
[[nodiscard]] Text split_server_list(const char* list);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_CONFIG_SETTINGS_H_
