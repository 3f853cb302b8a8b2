#include "signals.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace velprobe {

namespace {

volatile std::sig_atomic_t session_socket = -1;
volatile std::sig_atomic_t time_is_up = 0;
volatile std::sig_atomic_t stop_wanted = 0;
int stop_pipe[2] = {-1, -1};
int null_device = -1;

// cut_session puts the null device in the socket's place, where every read
// finds the end. To shut the socket down would not do: a client that never
// stops sending is read on.
void cut_session() {
  if (session_socket >= 0) ::dup2(null_device, session_socket);
}

void on_alarm(int) {
  const int kept_errno = errno;
  time_is_up = 1;
  cut_session();
  errno = kept_errno;
}

void on_stop(int) {
  const int kept_errno = errno;
  stop_wanted = 1;
  cut_session();
  // A full pipe is as readable as can be.
  [[maybe_unused]] const ssize_t written = ::write(stop_pipe[1], "", 1);
  errno = kept_errno;
}

// handle also lets the signal in, which the caller may have left blocked.
bool handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, signal);
  return ::sigaction(signal, &action, nullptr) == 0 &&
         ::sigprocmask(SIG_UNBLOCK, &blocked, nullptr) == 0;
}

void set_alarm(int seconds) {
  const itimerval once{{0, 0}, {seconds, 0}};
  ::setitimer(ITIMER_REAL, &once, nullptr);
}

}  // namespace

ErrorText watch_signals() {
  if (::pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
    return os_failure("Error creating pipe");
  }
  null_device = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null_device < 0) return os_failure("Error opening /dev/null");
  if (!handle(SIGALRM, on_alarm) || !handle(SIGINT, on_stop) ||
      !handle(SIGTERM, on_stop)) {
    return os_failure("Error watching signals");
  }
  return {};
}

std::int32_t stop_descriptor() {
  return stop_pipe[0];
}

SessionLimit::SessionLimit(std::int32_t socket) {
  time_is_up = 0;
  session_socket = socket;
  // A stop may have come before there was a session to cut.
  if (stop_wanted) cut_session();
  set_alarm(kSessionSeconds);
}

SessionLimit::~SessionLimit() {
  session_socket = -1;
  set_alarm(0);
}

const char* SessionLimit::cut_reason() const {
  if (stop_wanted) return "cut off: stopping";
  if (time_is_up) return "cut off: time is up";
  return nullptr;
}

}  // namespace velprobe
