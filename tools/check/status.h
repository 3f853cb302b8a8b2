// The exit statuses of velcheck, those of every monitoring plugin.
#ifndef VELPROBE_CHECK_STATUS_H_
#define VELPROBE_CHECK_STATUS_H_

namespace velprobe::check {

enum Status { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

inline constexpr const char* kStatusNames[] = {"OK", "WARNING", "CRITICAL",
                                               "UNKNOWN"};

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_STATUS_H_
