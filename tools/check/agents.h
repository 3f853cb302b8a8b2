// The agents of a whole fleet, from a file.
#ifndef VELPROBE_CHECK_AGENTS_H_
#define VELPROBE_CHECK_AGENTS_H_

#include <string>
#include <vector>

#include "util/deadline.h"
#include "util/error_text.h"

namespace velprobe::check {

// Agent is one identity to ask with; an empty name stands for this host's
// address towards the server.
struct Agent {
  std::string name;
  std::string domain;
};

// Limits of the protocol, in bytes.
inline constexpr std::size_t kLongestName = 256;
inline constexpr std::size_t kLongestDomain = 1024;

// More names than this are taken for a wrong file.
inline constexpr std::size_t kMostAgents = 100'000;

// read_agents reads the file at path ("-": standard input): one name per line
// and, behind white space, its domain; without one it gets default_domain. "#"
// begins a comment. Who stands there twice is there once.
//   the texts of read_text_file; "%s, line %zu: ..." with what is wrong there;
//   "%s names no agent"
ErrorText read_agents(const char* path, Deadline deadline,
                      const std::string& default_domain,
                      std::vector<Agent>& out_agents);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_AGENTS_H_
