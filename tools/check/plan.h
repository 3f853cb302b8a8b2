// Whom to ask, and as whom.
#ifndef VELPROBE_CHECK_PLAN_H_
#define VELPROBE_CHECK_PLAN_H_

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agents.h"
#include "options.h"
#include "result.h"
#include "util/deadline.h"
#include "util/error_text.h"

namespace velprobe::check {

struct Server {
  std::string name;
  std::uint16_t port = 0;
  Source source = Source::kArgument;
};

// Plan: each agent is asked of each server. No two servers have both name and
// port in common.
struct Plan {
  std::vector<Agent> agents;
  std::vector<Server> servers;
  std::set<std::pair<std::string, std::uint16_t>> known;  // of servers
  // Of servers that come without one, those of a scan among them.
  std::uint16_t port = 0;
};

// make_plan gathers agents and servers from the command line and the files that
// it names. Waiting for a file that is a pipe ends at the deadline.
//   the texts of read_agents; "Out of memory"; "Error opening %s: %s", "Error
//   reading %s: %s";
//   "%s, line %zu: not SERVER or SERVER:PORT: \"%s\"";
//   "not SERVER or SERVER:PORT: \"%s\""
ErrorText make_plan(const Options& options, Deadline deadline, Plan& out_plan);

// add_server adds a server that the plan does not hold yet; false when it does.
bool add_server(Plan& plan, Server server);

// parse_server reads SERVER or SERVER:PORT. False for an empty name, a port
// that is no number from 1 to 65535, and an IPv6 address.
[[nodiscard]] bool parse_server(std::string_view text,
                                std::uint16_t default_port, Server& out_server);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PLAN_H_
