// Deadlines: points in time at which waiting ends.
#ifndef VELPROBE_UTIL_DEADLINE_H_
#define VELPROBE_UTIL_DEADLINE_H_

#include <chrono>

#pragma GCC visibility push(default)
namespace velprobe {

// Deadline is a point on the steady clock, so that setting the machine's date
// moves none.
using Deadline = std::chrono::steady_clock::time_point;

inline constexpr Deadline kNoDeadline = Deadline::max();

// is_past tells whether a deadline has come. kNoDeadline never does, and costs
// no look at the clock.
inline bool is_past(Deadline deadline) {
  return deadline != kNoDeadline &&
         std::chrono::steady_clock::now() >= deadline;
}

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_DEADLINE_H_
