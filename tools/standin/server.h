// The service loop of velstandin.
#ifndef VELPROBE_STANDIN_SERVER_H_
#define VELPROBE_STANDIN_SERVER_H_

#include "options.h"
#include "util/error_text.h"

namespace velprobe::standin {

// run_server listens, says where, and serves clients side by side until SIGINT,
// SIGTERM or the end of the last of the wanted sessions. Fails with the texts
// of NodeTable, watch_signals, listen_on, open_responder, SessionPool and Log,
// with "Error reading the port chosen by the system" and "Error waiting for
// clients: %s".
ErrorText run_server(const Options& options);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_SERVER_H_
