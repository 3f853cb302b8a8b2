#include "signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace velprobe::standin {

namespace {

// A signal that the caller had ignored would never arrive.
bool stop_ignoring(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  return ::sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

ErrorText watch_signals(bool with_hangup, FileDescriptor& out_signals) {
  constexpr const char* kFailure = "Error watching signals";
  sigset_t watched;
  sigemptyset(&watched);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGHUP}) {
    if (signal == SIGHUP && !with_hangup) continue;
    if (!stop_ignoring(signal)) return os_failure(kFailure);
    sigaddset(&watched, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
  FileDescriptor signals(::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals) return os_failure(kFailure);
  out_signals = std::move(signals);
  return {};
}

int take_signal(const FileDescriptor& signals) {
  signalfd_siginfo arrived{};
  const ssize_t size = ::read(signals.get(), &arrived, sizeof arrived);
  return size == sizeof arrived ? static_cast<int>(arrived.ssi_signo) : 0;
}

void forget_stop_signals(const FileDescriptor& signals) {
  while (take_signal(signals) != 0) continue;
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  ::pthread_sigmask(SIG_UNBLOCK, &stopping, nullptr);
}

}  // namespace velprobe::standin
