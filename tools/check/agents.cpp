#include "agents.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "text_file.h"
#include "util/text.h"

namespace velprobe::check {
namespace {

constexpr char kNotAnAgent[] = "not NAME or NAME DOMAIN";
constexpr char kTooLong[] =
    "a name has at most 256 bytes, a domain at most 1024";
constexpr char kControl[] = "a control character";
constexpr char kTooMany[] = "more than 100000 agents";

bool is_control(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

// take_word cuts the first word off, and the white space behind it.
std::string_view take_word(std::string_view& text) {
  const auto end = std::find_if(text.begin(), text.end(), is_white_space);
  const std::string_view word(text.begin(), end);
  const auto next = std::find_if_not(end, text.end(), is_white_space);
  text = std::string_view(next, text.end());
  return word;
}

// parse_agent tells what is wrong with an entry, or null.
const char* parse_agent(std::string_view entry,
                        const std::string& default_domain, Agent& out_agent) {
  const std::string_view name = take_word(entry);
  const std::string_view domain = take_word(entry);
  if (!entry.empty()) return kNotAnAgent;
  if (name.size() > kLongestName || domain.size() > kLongestDomain) {
    return kTooLong;
  }
  for (const std::string_view word : {name, domain}) {
    if (std::any_of(word.begin(), word.end(), is_control)) return kControl;
  }
  out_agent = {std::string(name),
               domain.empty() ? default_domain : std::string(domain)};
  return nullptr;
}

}  // namespace

ErrorText read_agents(const char* path, Deadline deadline,
                      const std::string& default_domain,
                      std::vector<Agent>& out_agents) {
  std::string text;
  if (ErrorText error = read_input(path, deadline, text)) return error;
  std::set<std::pair<std::string, std::string>> known;
  const char* complaint = nullptr;
  const std::size_t bad_line =
      for_each_entry(text, [&](std::string_view entry) {
        Agent agent;
        complaint = parse_agent(entry, default_domain, agent);
        if (complaint != nullptr) return false;
        if (!known.emplace(agent.name, agent.domain).second) return true;
        if (known.size() > kMostAgents) complaint = kTooMany;
        out_agents.push_back(std::move(agent));
        return complaint == nullptr;
      });
  const char* const title = input_title(path);
  if (bad_line != 0) {
    return format_error_text("%s, line %zu: %s", title, bad_line, complaint);
  }
  if (out_agents.empty()) return format_error_text("%s names no agent", title);
  return {};
}

}  // namespace velprobe::check
