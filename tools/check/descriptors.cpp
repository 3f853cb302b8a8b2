#include "descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>

namespace velprobe::check {
namespace {

// A look-up opens the files that the system's configuration names, and sockets.
constexpr std::size_t kPerLookUp = 4;
// For the sockets of a scan and the file of the result.
constexpr std::size_t kSpare = 8;
constexpr int kHighestCounted = 4096;

std::size_t num_open() {
  std::size_t count = 0;
  for (int i = 0; i < kHighestCounted; ++i) {
    if (::fcntl(i, F_GETFD) >= 0) ++count;
  }
  return count;
}

// raised_limit gives the limit after an attempt to have this many.
std::size_t raised_limit(std::size_t needed) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return needed;
  if (limit.rlim_cur < needed) {
    rlimit raised = limit;
    raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, needed);
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  }
  return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur, needed));
}

}  // namespace

AtOnce fit_descriptors(AtOnce wanted) {
  const std::size_t taken = num_open() + kSpare;
  const std::size_t limit =
      raised_limit(taken + wanted.jobs + wanted.look_ups * kPerLookUp);
  const std::size_t free = limit - std::min(limit, taken);
  AtOnce fitting;
  // Look-ups take half at most: what they find is for the conversations.
  fitting.look_ups =
      std::clamp<std::size_t>(free / 2 / kPerLookUp, 1, wanted.look_ups);
  const std::size_t rest = free - std::min(free, fitting.look_ups * kPerLookUp);
  fitting.jobs = std::clamp<std::size_t>(rest, 1, wanted.jobs);
  return fitting;
}

}  // namespace velprobe::check
