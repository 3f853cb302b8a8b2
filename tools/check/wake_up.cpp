#include "wake_up.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>

#include "status.h"

namespace velprobe::check {
namespace {

int event = -1;
std::atomic<bool> stop = false;
// Saves the system call when the main thread has not looked since the last.
std::atomic<bool> woken = false;

// timeout(1) sends its signal twice in a row, to the program and its group.
constexpr std::chrono::steady_clock::duration kOneRequest =
    std::chrono::seconds(1);
// Of the first request; for the handler alone, which nothing interrupts.
std::chrono::steady_clock::rep stopped_at = 0;

void raise_event() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof one);
}

void on_stop(int) {
  const int kept_errno = errno;
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  if (!stop.exchange(true)) stopped_at = now;
  if (now - stopped_at >= kOneRequest.count()) ::_exit(kUnknown);
  raise_event();
  errno = kept_errno;
}

// handle also lets the signal in, which the caller may have left blocked.
bool handle(int signal) {
  struct sigaction action {};
  action.sa_handler = on_stop;
  action.sa_flags = SA_RESTART;
  ::sigfillset(&action.sa_mask);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, signal);
  return ::sigaction(signal, &action, nullptr) == 0 &&
         ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr) == 0;
}

// Rounded up: to wake a little late saves waking twice.
int milliseconds_until(Deadline deadline) {
  if (deadline == kNoDeadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

}  // namespace

ErrorText watch_for_wake_ups() {
  event = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event < 0) return os_failure("Error creating an event descriptor");
  if (!handle(SIGINT) || !handle(SIGTERM)) {
    return os_failure("Error watching signals");
  }
  return {};
}

void wake_up() {
  if (!woken.exchange(true)) raise_event();
}

bool wait_for_wake_up(Deadline deadline, int descriptor) {
  pollfd waited[] = {{event, POLLIN, 0}, {descriptor, POLLIN, 0}};
  if (::poll(waited, 2, milliseconds_until(deadline)) <= 0) return false;
  if (waited[0].revents != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(event, &count, sizeof count);
    woken = false;
  }
  return waited[1].revents != 0;
}

bool stop_wanted() {
  return stop;
}

}  // namespace velprobe::check
