#include "merge.h"

#include <algorithm>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include "joined.h"
#include "result_file.h"
#include "text_file.h"

namespace velprobe::check {
namespace {

// More disagreements than this are told by their number.
constexpr std::size_t kMostRemarks = 20;

// By orders the rows of a report.
struct By {
  bool address;  // it tells rows of one server apart

  // What makes two rows speak of the same pair. An agent without a name is
  // known by the host that asked.
  auto pair_of(const Row& row) const {
    static const std::string kAnyAddress;
    return std::tie(row.server, row.port, address ? row.address : kAnyAddress,
                    row.is_named ? row.agent : row.host, row.is_named,
                    row.domain);
  }

  auto statement_of(const Row& row) const {
    return std::tuple_cat(pair_of(row), std::tie(row.result, row.text));
  }
};

void add_complaint(Report& report, std::string complaint) {
  if (report.error.empty()) {
    report.error = std::move(complaint);
  } else {
    report.remarks.push_back(std::move(complaint));
  }
}

void add_result(const char* path, ResultFile result, Report& report) {
  const auto end = [](const auto& one) {
    return one.started +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::duration<double>(one.seconds));
  };
  const bool is_first = report.started.time_since_epoch().count() == 0;
  const auto last = is_first ? end(result) : std::max(end(report), end(result));
  report.started =
      is_first ? result.started : std::min(report.started, result.started);
  report.seconds = std::chrono::duration<double>(last - report.started).count();
  report.all_addresses |= result.all_addresses;
  if (!result.error.empty()) {
    report.is_incomplete = true;
    report.remarks.push_back(joined({path, ": ", result.error}));
  }
  for (const std::string& remark : result.remarks) {
    report.remarks.push_back(joined({path, ": ", remark}));
  }
  std::move(result.rows.begin(), result.rows.end(),
            std::back_inserter(report.rows));
}

void read_result(const char* path, Deadline deadline, Report& report) {
  std::string json;
  if (ErrorText error = read_input(path, deadline, json)) {
    add_complaint(report, error.c_str());
    return;
  }
  ResultFile result;
  const std::string complaint = parse_result(json, result);
  if (complaint.empty()) {
    add_result(input_title(path), std::move(result), report);
  } else {
    add_complaint(report,
                  joined({input_title(path),
                          ": no result of velcheck --json: ", complaint}));
  }
}

// keep_latest leaves one row of those that say the same.
void keep_latest(std::vector<Row>& rows, By by) {
  std::stable_sort(rows.begin(), rows.end(),
                   [by](const Row& one, const Row& other) {
                     const auto mine = by.statement_of(one);
                     const auto its = by.statement_of(other);
                     return mine != its ? mine < its : one.time > other.time;
                   });
  rows.erase(std::unique(rows.begin(), rows.end(),
                         [by](const Row& one, const Row& other) {
                           return by.statement_of(one) ==
                                  by.statement_of(other);
                         }),
             rows.end());
}

using Rows = std::vector<Row>::iterator;

std::string disagreement(Rows first, Rows last) {
  std::string text = joined({"results disagree: ", pair_name(*first)});
  for (Rows row = first; row != last; ++row) {
    text += joined({row == first ? ": " : ", ", result_name(row->result), " (",
                    timestamp(row->time), row->host.empty() ? "" : " from ",
                    row->host, ")"});
  }
  return text;
}

// mark_outdated puts the latest of the rows about one pair first and tells when
// there are several.
void mark_outdated(Report& report, By by) {
  std::size_t num_pairs = 0;
  for (Rows first = report.rows.begin(); first != report.rows.end();) {
    const Rows last = std::find_if(
        first, report.rows.end(),
        [&](const Row& row) { return by.pair_of(row) != by.pair_of(*first); });
    std::stable_sort(first, last, [](const Row& one, const Row& other) {
      return one.time > other.time;
    });
    for (Rows row = first + 1; row < last; ++row) row->is_outdated = true;
    if (last - first > 1 && ++num_pairs <= kMostRemarks) {
      report.remarks.push_back(disagreement(first, last));
    }
    first = last;
  }
  if (num_pairs <= kMostRemarks) return;
  report.remarks.push_back(
      joined({"results disagree about ",
              std::to_string(num_pairs - kMostRemarks), " more pairs"}));
}

}  // namespace

void merge_results(std::span<const char* const> paths, Deadline deadline,
                   Report& report) {
  report.is_merged = true;
  for (const char* path : paths) read_result(path, deadline, report);
  const By by{report.all_addresses};
  keep_latest(report.rows, by);
  mark_outdated(report, by);
}

}  // namespace velprobe::check
