#include "report.h"

#include <cstdio>
#include <ctime>
#include <set>
#include <utility>

#include "joined.h"

namespace velprobe::check {
namespace {

bool reaches(const std::optional<Range>& range, double num_failed,
             bool by_default) {
  return range ? alerts(*range, num_failed) : by_default;
}

Status status_of(const Report& report) {
  if (!report.error.empty() || report.rows.empty()) return kUnknown;
  const std::size_t failed = num_failed(report);
  const auto number = static_cast<double>(failed);
  if (reaches(report.critical, number, failed == report.rows.size())) {
    return kCritical;
  }
  const bool warns = reaches(report.warning, number, failed > 0);
  return warns || report.is_incomplete ? kWarning : kOk;
}

}  // namespace

void judge(Report& report) {
  report.counts.fill(0);
  std::set<std::pair<std::string, std::string_view>> agents;
  std::set<std::pair<std::string_view, std::uint16_t>> servers;
  for (const Row& row : report.rows) {
    ++report.counts[static_cast<std::size_t>(row.result)];
    agents.emplace(agent_name(row), row.domain);
    servers.emplace(row.server, row.port);
  }
  report.num_agents = agents.size();
  report.num_servers = servers.size();
  report.status = status_of(report);
}

std::size_t num_with(const Report& report, Result result) {
  return report.counts[static_cast<std::size_t>(result)];
}

std::size_t num_failed(const Report& report) {
  return report.rows.size() - num_with(report, Result::kAccepted);
}

std::string count_of(std::size_t count, std::string_view name) {
  return joined({std::to_string(count), " ", name, count == 1 ? "" : "s"});
}

std::string timestamp(std::chrono::system_clock::time_point time) {
  using std::chrono::milliseconds;
  const auto since_epoch =
      std::chrono::floor<milliseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = since_epoch / 1000;
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char day[32];
  char text[48];
  std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text, sizeof text, "%s.%03dZ", day,
                static_cast<int>(since_epoch % 1000));
  return text;
}

std::string seconds_text(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

}  // namespace velprobe::check
