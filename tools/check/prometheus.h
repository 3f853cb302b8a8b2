// The result as metrics, for the node exporter's textfile collector.
#ifndef VELPROBE_CHECK_PROMETHEUS_H_
#define VELPROBE_CHECK_PROMETHEUS_H_

#include <string>

#include "report.h"

namespace velprobe::check {

// prometheus_text prints a report in Prometheus' text format, version 0.0.4.
// Bytes of label values that are no UTF-8 become U+FFFD.
std::string prometheus_text(const Report& report);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PROMETHEUS_H_
