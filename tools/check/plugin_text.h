// The result as monitoring systems read it from a plugin, and people too.
#ifndef VELPROBE_CHECK_PLUGIN_TEXT_H_
#define VELPROBE_CHECK_PLUGIN_TEXT_H_

#include <string>

#include "report.h"

namespace velprobe::check {

// plugin_text prints a report by the monitoring plugins' guidelines: one line
// with the verdict, the reasons and behind "|" the performance data, then lines
// for the servers and the remarks. Servers with the same reason share a line
// when they are many. Control characters and "|" of other people's words are
// shown as "?".
//
//   VELCHECK WARNING - 1 of 2 servers accept "web1"; b: refused: No Node | ...
std::string plugin_text(const Report& report);

// terminal_text gives a text of unknown origin as one line that a terminal or a
// log may show: what it would obey, or show in another order, becomes "?", byte
// by byte.
std::string terminal_text(std::string text);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PLUGIN_TEXT_H_
