#include "wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <memory>
#include <new>

namespace velprobe {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

// To the nanosecond: a wait that ended early by rounding would be taken for a
// time-out before its time.
timespec time_until(Deadline end) {
  const Deadline now = std::chrono::steady_clock::now();
  // The distance to the first points of the clock does not fit its type.
  const nanoseconds left = end > now ? end - now : nanoseconds::zero();
  const auto whole = std::chrono::duration_cast<seconds>(left);
  return {whole.count(), (left - whole).count()};
}

pollfd entry_for(std::int32_t socket, WaitFor what) {
  return {socket,
          static_cast<short>(what == WaitFor::kReadable ? POLLIN : POLLOUT), 0};
}

WaitResult not_open() {
  errno = EBADF;
  return WaitResult::kError;
}

// A negative descriptor poll passes over: it would wait for nothing.
bool is_negative(const pollfd& entry) {
  return entry.fd < 0;
}

bool is_not_open(const pollfd& entry) {
  return (entry.revents & POLLNVAL) != 0;
}

WaitResult wait_on(std::span<pollfd> entries, int limit, OnSignal on_signal,
                   Deadline deadline) {
  if (std::any_of(entries.begin(), entries.end(), is_negative)) {
    return not_open();
  }
  const Deadline end =
      std::min(std::chrono::steady_clock::now() + seconds(limit), deadline);
  int num_ready;
  do {
    const timespec left = time_until(end);
    num_ready = ::ppoll(entries.data(), entries.size(), &left, nullptr);
  } while (num_ready < 0 && errno == EINTR && on_signal == OnSignal::kRestart);

  if (num_ready < 0) return WaitResult::kError;
  if (std::any_of(entries.begin(), entries.end(), is_not_open)) {
    return not_open();
  }
  return num_ready == 0 ? WaitResult::kTimeout : WaitResult::kReady;
}

}  // namespace

WaitResult wait_for_any(std::span<const std::int32_t> sockets, WaitFor what,
                        int seconds, OnSignal on_signal, std::size_t& out_first,
                        Deadline deadline) {
  const std::unique_ptr<pollfd[]> entries(new (std::nothrow)
                                              pollfd[sockets.size()]);
  if (!entries) {
    errno = ENOMEM;
    return WaitResult::kError;
  }
  for (std::size_t i = 0; i < sockets.size(); ++i) {
    entries[i] = entry_for(sockets[i], what);
  }
  const WaitResult result =
      wait_on({entries.get(), sockets.size()}, seconds, on_signal, deadline);
  if (result == WaitResult::kReady) {
    out_first = 0;
    while (entries[out_first].revents == 0) ++out_first;
  }
  return result;
}

WaitResult wait_for_socket(std::int32_t socket, WaitFor what, int seconds,
                           OnSignal on_signal, Deadline deadline) {
  pollfd entry = entry_for(socket, what);
  return wait_on({&entry, 1}, seconds, on_signal, deadline);
}

}  // namespace velprobe
