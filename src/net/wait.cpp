#include "wait.h"

#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>

namespace velprobe {

namespace {

// fill_set gives the highest descriptor in the set.
int fill_set(std::span<const std::int32_t> sockets, fd_set& set) {
  FD_ZERO(&set);
  int highest = -1;
  for (const std::int32_t socket : sockets) {
    FD_SET(socket, &set);
    highest = std::max(highest, socket);
  }
  return highest;
}

}  // namespace

bool fits_wait(std::int32_t socket) {
  return socket >= 0 && socket < FD_SETSIZE;
}

WaitResult wait_for_any(std::span<const std::int32_t> sockets, WaitFor what,
                        int seconds, OnSignal on_signal,
                        std::size_t& out_first) {
  if (!std::all_of(sockets.begin(), sockets.end(), fits_wait)) {
    errno = EMFILE;
    return WaitResult::kError;
  }

  // The system counts the time-out down, so a restart waits for the rest only.
  timeval time_left{seconds, 0};
  fd_set set;
  int num_ready;
  do {
    const int highest = fill_set(sockets, set);
    num_ready = ::select(
        highest + 1, what == WaitFor::kReadable ? &set : nullptr,
        what == WaitFor::kWritable ? &set : nullptr, nullptr, &time_left);
  } while (num_ready < 0 && errno == EINTR && on_signal == OnSignal::kRestart);

  if (num_ready < 0) return WaitResult::kError;
  if (num_ready == 0) return WaitResult::kTimeout;
  out_first = 0;
  while (!FD_ISSET(sockets[out_first], &set)) ++out_first;
  return WaitResult::kReady;
}

WaitResult wait_for_socket(std::int32_t socket, WaitFor what, int seconds,
                           OnSignal on_signal) {
  std::size_t first;
  return wait_for_any({&socket, 1}, what, seconds, on_signal, first);
}

}  // namespace velprobe
