// A line on the terminal that tells how far a run has come.
#ifndef VELPROBE_CHECK_PROGRESS_H_
#define VELPROBE_CHECK_PROGRESS_H_

#include "run.h"
#include "util/deadline.h"

namespace velprobe::check {

// Progress shows its line on standard error, from the first second of the run
// on and only where that is a terminal, and wipes it out at its end.
class Progress {
 public:
  explicit Progress(Deadline end);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // due tells when to call show next; kNoDeadline: never.
  Deadline due() const { return due_; }
  void show(const Standing& standing);

 private:
  const Deadline end_;
  Deadline due_ = kNoDeadline;
  bool shown_ = false;
};

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_PROGRESS_H_
