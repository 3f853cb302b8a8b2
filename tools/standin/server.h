// The service loop of velstandin.
#ifndef VELPROBE_STANDIN_SERVER_H_
#define VELPROBE_STANDIN_SERVER_H_

#include "options.h"
#include "util/error_text.h"

namespace velprobe {

// run_server listens, says where, and serves one client after the other until
// SIGINT, SIGTERM or the last of the wanted sessions. Fails with the texts of
// watch_signals, listen_on and open_responder.
ErrorText run_server(const Options& options);

}  // namespace velprobe

#endif  // VELPROBE_STANDIN_SERVER_H_
