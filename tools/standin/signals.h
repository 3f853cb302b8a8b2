// The signals that velstandin obeys, as a descriptor to wait for.
#ifndef VELPROBE_STANDIN_SIGNALS_H_
#define VELPROBE_STANDIN_SIGNALS_H_

#include "util/error_text.h"
#include "util/owners.h"

namespace velprobe::standin {

// watch_signals makes SIGINT, SIGTERM, SIGUSR1 and, if asked to, SIGHUP arrive
// at a descriptor and nowhere else. To be called before there are threads.
//   "Error watching signals: %s"
ErrorText watch_signals(bool with_hangup, FileDescriptor& out_signals);

// take_signal gives the number of one signal that has arrived, or 0.
int take_signal(const FileDescriptor& signals);

// forget_stop_signals gives SIGINT and SIGTERM their usual effect again: the
// next one ends a program that hangs on its way out. What had arrived before is
// no next one.
void forget_stop_signals(const FileDescriptor& signals);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_SIGNALS_H_
