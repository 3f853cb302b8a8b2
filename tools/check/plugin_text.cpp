#include "plugin_text.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>
#include <vector>

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

std::string safe(std::string text) {
  std::replace(text.begin(), text.end(), '\0', '?');
  std::replace(text.begin(), text.end(), '|', '?');
  replace_control_bytes(text.data());
  return text;
}

std::string reason_of(const Row& row) {
  std::string reason = result_name(row.result);
  std::string_view text = row.text;
  if (text.empty()) return reason;
  if (text.starts_with(kRefusal)) text.remove_prefix(kRefusal.size());
  return reason + ": " + safe(std::string(text));
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

std::string name_of(const Row& row) {
  std::string name = safe(row.server);
  if (row.port != kDefaultServerPort) name += ":" + std::to_string(row.port);
  return name;
}

std::string first_names(const Group& group) {
  std::string names;
  for (std::size_t i = 0; i < std::min(group.rows.size(), kMostNames); ++i)
    names += (i == 0 ? "" : ", ") + name_of(*group.rows[i]);
  if (group.rows.size() > kMostNames)
    names += " and " + std::to_string(group.rows.size() - kMostNames) + " more";
  return names;
}

// The agent's name, if all rows agree on it.
std::string agent_of(const Report& report) {
  std::string agent = report.name;
  for (const Row& row : report.rows) {
    if (agent.empty()) agent = row.agent;
    if (!row.agent.empty() && row.agent != agent) return "this agent";
  }
  return agent.empty() ? "this agent" : "\"" + safe(agent) + "\"";
}

std::string summary(const Report& report, const std::vector<Group>& groups) {
  if (!report.error.empty()) return safe(report.error);
  if (report.rows.empty()) return "no server to ask";
  std::string text = std::to_string(num_with(report, Result::kAccepted)) +
                     " of " + std::to_string(report.rows.size()) +
                     " servers accept " + agent_of(report);
  std::size_t num_told = 0;
  std::size_t num_left = 0;
  for (const Group& group : groups) {
    if (group.rows.front()->result == Result::kAccepted) continue;
    if (num_told == kMostReasons) {
      num_left += group.rows.size();
      continue;
    }
    ++num_told;
    text += "; " + first_names(group) + ": " + group.reason;
  }
  if (num_left > 0) text += "; " + std::to_string(num_left) + " others";
  return text;
}

std::string short_number(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", number);
  return text;
}

// 'label'=value;warning;critical;minimum;maximum
std::string performance_data(const Report& report) {
  const std::string all = std::to_string(report.rows.size());
  std::string data =
      " | accepted=" + std::to_string(num_with(report, Result::kAccepted)) +
      ";;;0;" + all;
  for (const Result result : kAllResults) {
    const std::size_t count = num_with(report, result);
    if (result == Result::kAccepted || count == 0) continue;
    data +=
        std::string(" ") + result_name(result) + "=" + std::to_string(count);
  }
  const auto& [warning, critical] = std::tie(report.warning, report.critical);
  if (warning || critical) {
    data += " not_accepted=" + std::to_string(num_failed(report)) + ";" +
            (warning ? warning->text : "") + ";" +
            (critical ? critical->text : "") + ";0;" + all;
  }
  return data + " time=" + seconds_text(report.seconds) + "s;;;0;" +
         short_number(report.timeout);
}

std::string row_line(const Row& row, const std::string& reason) {
  std::string line = name_of(row);
  if (!row.address.empty() && row.address != row.server)
    line += " (" + row.address + ")";
  return line + ": " + reason + " [" + seconds_text(row.seconds) + "s]\n";
}

std::string group_lines(const Group& group) {
  if (group.rows.size() > kMostNames) {
    return std::to_string(group.rows.size()) + " servers (" +
           first_names(group) + "): " + group.reason + "\n";
  }
  std::string lines;
  for (const Row* row : group.rows) lines += row_line(*row, group.reason);
  return lines;
}

}  // namespace

std::string plugin_text(const Report& report) {
  const std::vector<Group> groups = groups_of(report);
  std::string text = std::string("VELCHECK ") + kStatusNames[report.status] +
                     " - " + summary(report, groups);
  if (!report.rows.empty()) text += performance_data(report);
  text += "\n";
  for (const Group& group : groups) text += group_lines(group);
  for (const std::string& remark : report.remarks)
    text += "remark: " + safe(remark) + "\n";
  return text;
}

}  // namespace velprobe::check
