#include "plugin_text.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "joined.h"
#include "util/printable_text.h"

namespace velprobe::check {
namespace {

// More than this many are told by their number and the first of them.
constexpr std::size_t kMostNames = 3;
constexpr std::size_t kMostReasons = 3;

constexpr std::string_view kRefusal = "Veltra Server rejected us: ";

// Group holds the rows that tell the same.
struct Group {
  std::string reason;
  std::vector<const Row*> rows;
};

// A bar would begin the figures.
std::string safe(std::string text) {
  std::replace(text.begin(), text.end(), '|', '?');
  return terminal_text(std::move(text));
}

// The text without what the line tells anyway: that the server refused, and its
// name, lest each name that does not resolve be a reason of its own.
std::string reason_of(const Row& row) {
  const std::string_view result = result_name(row.result);
  std::string text = row.text;
  if (text.empty()) return std::string(result);
  if (text.starts_with(kRefusal)) text.erase(0, kRefusal.size());
  const std::string name = joined({" \"", row.server, "\""});
  const std::size_t at = text.find(name);
  if (row.result == Result::kUnresolved && at != text.npos) {
    text.erase(at, name.size());
  }
  return joined({result, ": ", safe(std::move(text))});
}

// groups_of gathers the rows by reason in the order of their first; those that
// accept come last.
std::vector<Group> groups_of(const Report& report) {
  std::vector<Group> groups;
  std::map<std::string, std::size_t> known;
  for (const bool accepted : {false, true}) {
    for (const Row& row : report.rows) {
      if ((row.result == Result::kAccepted) != accepted) continue;
      const auto [at, is_new] = known.emplace(reason_of(row), groups.size());
      if (is_new) groups.push_back({at->first, {}});
      groups[at->second].rows.push_back(&row);
    }
  }
  return groups;
}

// Of one agent the server tells the row, of many only both do.
std::string name_of(const Row& row, bool is_fleet) {
  return safe(is_fleet ? pair_name(row) : server_name(row));
}

bool is_fleet(const Report& report) {
  return report.num_agents > 1;
}

std::string first_names(const Group& group, bool is_fleet) {
  const std::size_t count = group.rows.size();
  std::string names;
  for (std::size_t i = 0; i < std::min(count, kMostNames); ++i) {
    names += joined({i == 0 ? "" : ", ", name_of(*group.rows[i], is_fleet)});
  }
  if (count <= kMostNames) return names;
  return joined({names, " and ", std::to_string(count - kMostNames), " more"});
}

// The agent's name, if all rows agree on it.
std::string agent_of(const Report& report) {
  std::string agent = report.name;
  for (const Row& row : report.rows) {
    if (agent.empty()) agent = row.agent;
    if (!row.agent.empty() && row.agent != agent) return "this agent";
  }
  if (agent.empty()) return "this agent";
  return joined({"\"", safe(agent), "\""});
}

std::string accepted_count(const Report& report) {
  std::string text =
      joined({std::to_string(num_with(report, Result::kAccepted)), " of ",
              std::to_string(report.rows.size())});
  if (!is_fleet(report)) {
    return joined({text, " servers accept ", agent_of(report)});
  }
  return joined({text, " accepted: ", count_of(report.num_agents, "agent"),
                 " at ", count_of(report.num_servers, "server")});
}

std::string summary(const Report& report, const std::vector<Group>& groups) {
  if (!report.error.empty()) return safe(report.error);
  if (report.rows.empty()) {
    return report.is_incomplete ? "no run could ask" : "no server to ask";
  }
  std::string text = accepted_count(report);
  std::size_t num_told = 0;
  std::size_t num_left = 0;
  for (const Group& group : groups) {
    if (group.rows.front()->result == Result::kAccepted) continue;
    if (num_told == kMostReasons) {
      num_left += group.rows.size();
      continue;
    }
    ++num_told;
    text += joined(
        {"; ", first_names(group, is_fleet(report)), ": ", group.reason});
  }
  if (num_left == 0) return text;
  return joined({text, "; ", std::to_string(num_left), " others"});
}

std::string_view text_of(const std::optional<Range>& range) {
  return range ? std::string_view(range->text) : "";
}

std::string short_number(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", number);
  return text;
}

// 'label'=value;warning;critical;minimum;maximum
std::string performance_data(const Report& report) {
  const std::string all = std::to_string(report.rows.size());
  std::string data = joined(
      {" | accepted=", std::to_string(num_with(report, Result::kAccepted)),
       ";;;0;", all});
  for (const Result result : kAllResults) {
    const std::size_t count = num_with(report, result);
    if (result == Result::kAccepted || count == 0) continue;
    data += joined({" ", result_name(result), "=", std::to_string(count)});
  }
  if (report.warning || report.critical) {
    data += joined({" not_accepted=", std::to_string(num_failed(report)), ";",
                    text_of(report.warning), ";", text_of(report.critical),
                    ";0;", all});
  }
  return joined({data, " time=", seconds_text(report.seconds), "s;;;0;",
                 short_number(report.timeout)});
}

std::string row_line(const Row& row, const std::string& reason, bool is_fleet) {
  std::string name = name_of(row, is_fleet);
  if (!row.address.empty() && row.address != row.server) {
    name += joined({" (", row.address, ")"});
  }
  return joined({name, ": ", reason, " [", seconds_text(row.seconds), "s]\n"});
}

std::string group_lines(const Group& group, bool is_fleet) {
  const std::size_t count = group.rows.size();
  if (count > kMostNames) {
    return joined({std::to_string(count), is_fleet ? " pairs (" : " servers (",
                   first_names(group, is_fleet), "): ", group.reason, "\n"});
  }
  std::string lines;
  for (const Row* row : group.rows) {
    lines += row_line(*row, group.reason, is_fleet);
  }
  return lines;
}

}  // namespace

std::string terminal_text(std::string text) {
  std::replace(text.begin(), text.end(), '\0', '?');
  replace_control_bytes(text.data());
  for (std::size_t i = 0, length; i < text.size(); i += length) {
    length = utf8_length(&text[i]);
    if (is_misleading(code_point(std::string_view(text).substr(i, length)))) {
      text.replace(i, length, length, '?');
    }
  }
  return text;
}

std::string plugin_text(const Report& report) {
  const std::vector<Group> groups = groups_of(report);
  std::string text = joined({"VELCHECK ", kStatusNames[report.status], " - ",
                             summary(report, groups)});
  if (!report.rows.empty()) text += performance_data(report);
  text += "\n";
  for (const Group& group : groups) {
    text += group_lines(group, is_fleet(report));
  }
  for (const std::string& remark : report.remarks) {
    text += joined({"remark: ", safe(remark), "\n"});
  }
  return text;
}

}  // namespace velprobe::check
