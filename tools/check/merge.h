// The results of many runs as one.
#ifndef VELPROBE_CHECK_MERGE_H_
#define VELPROBE_CHECK_MERGE_H_

#include <span>

#include "report.h"
#include "util/deadline.h"

namespace velprobe::check {

// merge_results reads files that velcheck --json wrote ("-": standard input)
// into one report, by server and agent. Of rows that say the same about a pair
// of agent and server the latest stays; rows that disagree all stay, a remark
// gives them with their times, and is_outdated marks all but the latest.
//
// A file that cannot be read, is damaged or comes from a newer version is the
// report's error, those after it are remarks, and the rows of all others are
// there. So are the errors of the runs themselves, which are remarks.
void merge_results(std::span<const char* const> paths, Deadline deadline,
                   Report& report);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_MERGE_H_
