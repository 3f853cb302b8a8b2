// What velcheck --json wrote, read back.
#ifndef VELPROBE_CHECK_RESULT_FILE_H_
#define VELPROBE_CHECK_RESULT_FILE_H_

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "result.h"

namespace velprobe::check {

struct ResultFile {
  std::string error;  // of that run
  std::chrono::system_clock::time_point started;
  double seconds = 0;
  bool all_addresses = false;
  std::vector<std::string> remarks;
  std::vector<Row> rows;
};

// parse_result reads one result and tells what is wrong with it, empty when
// nothing is. Whoever wrote it, it takes memory for its rows and texts alone:
// what it does not know is skipped unread, and depth is bounded.
std::string parse_result(std::string_view json, ResultFile& out_result);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_RESULT_FILE_H_
