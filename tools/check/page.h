// The result as a page for people.
#ifndef VELPROBE_CHECK_PAGE_H_
#define VELPROBE_CHECK_PAGE_H_

#include <string>

#include "report.h"

namespace velprobe::check {

// page_html prints a judged report as one HTML page that needs nothing else and
// no script to be read: counts and reasons, then agents by servers. Where the
// matrix would be mostly empty each agent has a list instead. Its policy lets
// no style and no script run but its own.
std::string page_html(const Report& report);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PAGE_H_
