// The result as JSON; docs/velcheck.schema.json describes it.
#ifndef VELPROBE_CHECK_JSON_H_
#define VELPROBE_CHECK_JSON_H_

#include <string>
#include <string_view>

#include "report.h"

namespace velprobe::check {

// Raised when a field changes its meaning or goes; new ones may always come.
inline constexpr int kSchema = 1;

// json_text prints a report as one object, a line for each row. Bytes that are
// no UTF-8 become U+FFFD.
std::string json_text(const Report& report);

// json_row prints one row as one line, without a line end.
std::string json_row(const Row& row);

// valid_utf8 gives a text whose bytes that are no UTF-8 became U+FFFD.
std::string valid_utf8(std::string_view text);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_JSON_H_
