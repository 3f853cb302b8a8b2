// The command line of velstandin.
#ifndef VELPROBE_STANDIN_OPTIONS_H_
#define VELPROBE_STANDIN_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "log.h"
#include "net/address.h"
#include "nodes.h"
#include "probe/check_in_probe.h"
#include "session.h"
#include "trouble.h"

namespace velprobe::standin {

struct Options {
  Ipv4Address listen{127, 0, 0, 1};
  std::uint16_t port = kDefaultServerPort;  // 0: the system chooses
  bool discovery = true;
  std::uint32_t sessions = 0;  // 0: no end
  std::uint32_t max_sessions = 256;
  SessionRules rules;
  TroubleMix query_troubles;
  std::span<const char* const> nodes;  // entries for NodeTable
  const char* node_file = nullptr;
  LogForm log = LogForm::kText;
  std::unique_ptr<const char*[]> node_texts;  // under nodes
};

// parse_options fills options from the command line, whose texts it borrows.
// It gives nothing when the program is to run, else the exit status to end
// with: 0 after --help and --version, 2 after a complaint on standard error.
std::optional<int> parse_options(int argc, char** argv, Options& options);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_OPTIONS_H_
