#include "report.h"

#include <cstdio>
#include <ctime>

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
  if (reaches(report.critical, number, failed == report.rows.size()))
    return kCritical;
  return reaches(report.warning, number, failed > 0) ? kWarning : kOk;
}

}  // namespace

void judge(Report& report) {
  report.counts.fill(0);
  for (const Row& row : report.rows)
    ++report.counts[static_cast<std::size_t>(row.result)];
  report.status = status_of(report);
}

std::size_t num_with(const Report& report, Result result) {
  return report.counts[static_cast<std::size_t>(result)];
}

std::size_t num_failed(const Report& report) {
  return report.rows.size() - num_with(report, Result::kAccepted);
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
