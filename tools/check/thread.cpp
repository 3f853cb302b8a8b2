#include "thread.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <utility>

namespace velprobe::check {
namespace {

using Body = std::function<void()>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStackFactor = 8;  // what the instrumentation adds
#else
constexpr std::size_t kStackFactor = 1;
#endif

void* run_body(void* argument) {
  const std::unique_ptr<Body> body(static_cast<Body*>(argument));
  (*body)();
  return nullptr;
}

// The least that a thread needs differs by machine and C library.
std::size_t allowed_stack(std::size_t wanted) {
  const long least = ::sysconf(_SC_THREAD_STACK_MIN);
  return std::max(wanted * kStackFactor,
                  static_cast<std::size_t>(std::max(least, 0L)) + wanted / 2);
}

// AllSignalsBlocked blocks them while it lives; a thread started meanwhile
// keeps them blocked.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

bool start_thread(std::size_t stack_size, Body body) {
  auto owned = std::make_unique<Body>(std::move(body));
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return false;
  pthread_t thread;
  const AllSignalsBlocked blocked;
  const bool started =
      ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) ==
          0 &&
      ::pthread_attr_setstacksize(&attributes, allowed_stack(stack_size)) ==
          0 &&
      ::pthread_create(&thread, &attributes, run_body, owned.get()) == 0;
  ::pthread_attr_destroy(&attributes);
  if (started) static_cast<void>(owned.release());
  return started;
}

}  // namespace velprobe::check
