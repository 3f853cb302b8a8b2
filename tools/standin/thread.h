// Threads with a small stack.
#ifndef VELPROBE_STANDIN_THREAD_H_
#define VELPROBE_STANDIN_THREAD_H_

#include <pthread.h>

#include "util/error_text.h"

namespace velprobe::standin {

// Thread runs a function, and waits for its end when it goes itself.
class Thread {
 public:
  using Run = void* (*)(void* argument);

  Thread() = default;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  ~Thread() { join(); }

  // start is for one that does not run.
  //   "Error starting thread: %s"
  ErrorText start(Run run, void* argument);
  void join();
  explicit operator bool() const { return is_started_; }

 private:
  pthread_t thread_{};
  bool is_started_ = false;
};

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_THREAD_H_
