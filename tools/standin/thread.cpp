#include "thread.h"

#include <cstddef>

namespace velprobe::standin {

namespace {

// A session needs a few kilobytes; the sanitizers some more.
constexpr std::size_t kStackBytes = 256 * 1024;

}  // namespace

ErrorText Thread::start(Run run, void* argument) {
  pthread_attr_t attributes;
  int failure = ::pthread_attr_init(&attributes);
  if (failure == 0) {
    ::pthread_attr_setstacksize(&attributes, kStackBytes);
    failure = ::pthread_create(&thread_, &attributes, run, argument);
    ::pthread_attr_destroy(&attributes);
  }
  is_started_ = failure == 0;
  if (is_started_) return {};
  return {
      format_error_text("Error starting thread: %s", os_error_text(failure)),
      failure};
}

void Thread::join() {
  if (is_started_) ::pthread_join(thread_, nullptr);
  is_started_ = false;
}

}  // namespace velprobe::standin
