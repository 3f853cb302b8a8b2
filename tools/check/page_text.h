// Texts of unknown origin, made fit for a page.
#ifndef VELPROBE_CHECK_PAGE_TEXT_H_
#define VELPROBE_CHECK_PAGE_TEXT_H_

#include <string>
#include <string_view>

namespace velprobe::check {

// html_text makes a text fit for the content of an element and for an attribute
// in double quotes. Characters that cannot be seen or that turn the direction
// of what stands beside them are shown by their numbers, as "[U+202E]"; bytes
// that are no UTF-8 become U+FFFD.
std::string html_text(std::string_view text);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PAGE_TEXT_H_
