// The result of a run, as every output format gets it.
#ifndef VELPROBE_CHECK_REPORT_H_
#define VELPROBE_CHECK_REPORT_H_

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "range.h"
#include "result.h"
#include "status.h"

namespace velprobe::check {

// Report is filled by the run; judge adds status and counts.
struct Report {
  // The agent as it was asked for; empty: each row tells.
  std::string name;
  std::string domain;
  std::chrono::system_clock::time_point started;
  double seconds = 0;
  double timeout = 0;
  bool all_addresses = false;  // a server may have several rows
  bool is_merged = false;      // of several runs
  bool is_incomplete = false;  // one of these could ask nobody
  std::optional<Range> warning;
  std::optional<Range> critical;
  std::vector<Row> rows;
  // What did not go well without being a server's fault.
  std::vector<std::string> remarks;
  // Why nobody could be asked; empty: somebody was.
  std::string error;

  Status status = kUnknown;
  std::array<std::size_t, kNumResults> counts{};
  std::size_t num_agents = 0;
  std::size_t num_servers = 0;  // by name and port
};

// judge sets status and counts from the rest: by the ranges on the number of
// rows that do not accept; without a range one is WARNING and all are CRITICAL.
// An error, or no row at all, is UNKNOWN; what is incomplete is never OK.
void judge(Report& report);

// num_with counts the rows of one result, num_failed those of all others than
// kAccepted; for a report that was judged.
std::size_t num_with(const Report& report, Result result);
std::size_t num_failed(const Report& report);

// count_of prints a number of things, each of which has the given name.
std::string count_of(std::size_t count, std::string_view name);

// timestamp prints a time as RFC 3339 does, in UTC, with milliseconds.
std::string timestamp(std::chrono::system_clock::time_point time);

// seconds_text prints seconds to the millisecond.
std::string seconds_text(double seconds);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_REPORT_H_
