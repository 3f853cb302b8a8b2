// Thresholds in the range syntax of the monitoring plugins' guidelines.
#ifndef VELPROBE_CHECK_RANGE_H_
#define VELPROBE_CHECK_RANGE_H_

#include <limits>
#include <string>
#include <string_view>

namespace velprobe::check {

// Range tells for which numbers to raise an alert: those outside of start to
// end, or with inside set those within, both ends included.
//
//   "10"     below 0 or above 10       "10:20"   below 10 or above 20
//   "10:"    below 10                  "@10:20"  from 10 to 20
//   "~:10"   above 10
struct Range {
  double start = 0;
  double end = std::numeric_limits<double>::infinity();
  bool inside = false;
  std::string text;  // as it was given
};

// parse_range reads a range; false for anything else, also for a start above
// the end, and out_range is then as it was.
[[nodiscard]] bool parse_range(std::string_view text, Range& out_range);

// alerts tells whether the number raises the range's alert.
bool alerts(const Range& range, double number);

// parse_decimal_number reads all of text as a finite number without a sign;
// false for anything else, and out_number is then as it was.
[[nodiscard]] bool parse_decimal_number(std::string_view text,
                                        double& out_number);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_RANGE_H_
