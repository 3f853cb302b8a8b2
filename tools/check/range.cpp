#include "range.h"

#include <charconv>
#include <system_error>
#include <utility>

namespace velprobe::check {
namespace {

bool parse_bound(std::string_view text, double& out_bound) {
  const bool negative = text.starts_with('-');
  if (negative) text.remove_prefix(1);
  if (!parse_decimal_number(text, out_bound)) return false;
  if (negative) out_bound = -out_bound;
  return true;
}

bool parse_start(std::string_view text, double& out_start) {
  if (text == "~") {
    out_start = -std::numeric_limits<double>::infinity();
    return true;
  }
  return text.empty() || parse_bound(text, out_start);
}

}  // namespace

bool parse_decimal_number(std::string_view text, double& out_number) {
  // from_chars would read "inf" and "nan", too.
  if (text.find_first_not_of("0123456789.") != text.npos) return false;
  const char* const end = text.data() + text.size();
  double number = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return false;
  out_number = number;
  return true;
}

bool parse_range(std::string_view text, Range& out_range) {
  Range range;
  range.text = text;
  range.inside = text.starts_with('@');
  if (range.inside) text.remove_prefix(1);

  const std::size_t colon = text.find(':');
  const bool has_start = colon != text.npos;
  const std::string_view end = has_start ? text.substr(colon + 1) : text;
  if (has_start && !parse_start(text.substr(0, colon), range.start)) {
    return false;
  }
  // Only "10:" may leave its end open.
  const bool open_end = has_start && end.empty();
  if (!open_end && !parse_bound(end, range.end)) return false;
  if (range.start > range.end) return false;
  out_range = std::move(range);
  return true;
}

bool alerts(const Range& range, double number) {
  const bool within = range.start <= number && number <= range.end;
  return within == range.inside;
}

}  // namespace velprobe::check
