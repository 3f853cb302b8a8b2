// What wakes the main thread: the workers' news and the signals that end a run.
#ifndef VELPROBE_CHECK_WAKE_UP_H_
#define VELPROBE_CHECK_WAKE_UP_H_

#include "util/deadline.h"
#include "util/error_text.h"

namespace velprobe::check {

// watch_for_wake_ups is to be called once, before all else here. From then on
// SIGINT and SIGTERM ask the run to stop; another one a second later or after
// that ends the program at once with the status for an unknown verdict.
//   "Error creating an event descriptor: %s", "Error watching signals: %s"
ErrorText watch_for_wake_ups();

// wake_up ends the wait of the main thread, now or the next one. For any
// thread.
void wake_up();

// wait_for_wake_up waits until somebody calls wake_up, a signal asks to stop,
// descriptor (if any) is readable, or the deadline comes. It tells whether the
// descriptor is readable.
bool wait_for_wake_up(Deadline deadline, int descriptor = -1);

// stop_wanted tells whether a signal asked to stop.
bool stop_wanted();

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_WAKE_UP_H_
