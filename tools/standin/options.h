// The command line of velstandin.
#ifndef VELPROBE_STANDIN_OPTIONS_H_
#define VELPROBE_STANDIN_OPTIONS_H_

#include <cstdint>
#include <memory>
#include <optional>

#include "net/address.h"
#include "probe/check_in_probe.h"
#include "session.h"

namespace velprobe {

struct Options {
  Ipv4Address listen{127, 0, 0, 1};
  std::uint16_t port = kDefaultServerPort;  // 0: the system chooses
  bool discovery = true;
  std::uint32_t sessions = 0;  // 0: no end
  AnswerPolicy answer;
  std::unique_ptr<const char*[]> nodes;  // under answer.nodes
};

// parse_options fills options from the command line, whose texts it borrows.
// It gives nothing when the program is to run, else the exit status to end
// with: 0 after --help and --version, 2 after a complaint on standard error.
std::optional<int> parse_options(int argc, char** argv, Options& options);

}  // namespace velprobe

#endif  // VELPROBE_STANDIN_OPTIONS_H_
