// The command line of velcheck.
#ifndef VELPROBE_CHECK_OPTIONS_H_
#define VELPROBE_CHECK_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "range.h"

namespace velprobe::check {

enum class Format { kPlugin, kJson, kJsonLines, kPrometheus };

// Options holds what the command line asks for; texts live as long as argv.
struct Options {
  const char* config = nullptr;
  const char* servers_from = nullptr;  // "-": standard input
  const char* agents_from = nullptr;   // the same
  const char* output = nullptr;        // null: standard output
  const char* html = nullptr;          // a page beside the output
  std::vector<const char*> servers;
  // Null or nothing: as the configuration file says.
  const char* name = nullptr;
  const char* domain = nullptr;
  std::optional<std::uint16_t> port;
  bool scan = false;
  bool all_addresses = false;
  // Seconds, for the whole run and for one server.
  double timeout = 10;
  bool has_timeout = false;  // it was given
  double each = 5;
  // Servers asked at once, in all and at one address.
  std::uint32_t jobs = 64;
  std::uint32_t per_server = 8;
  // Begun a second at one address; 0: as many as there are.
  std::uint32_t rate = 0;
  bool merge = false;  // servers are files with results instead
  // On the number of servers that do not accept.
  std::optional<Range> warning;
  std::optional<Range> critical;
  std::optional<Format> format;  // nothing: kPlugin
};

// parse_options reads the command line into options. It gives an exit status
// when the program is to end at once: 0 after --help and --version, 3 after a
// complaint on standard error or a standard output that cannot be written.
std::optional<int> parse_options(int argc, char** argv, Options& options);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_OPTIONS_H_
