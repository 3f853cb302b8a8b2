#include "server.h"

#include <cstdio>
#include <span>
#include <utility>

#include "discovery_responder.h"
#include "net/listener.h"
#include "net/resolver.h"
#include "net/tcp.h"
#include "net/wait.h"
#include "signals.h"
#include "util/owners.h"

namespace velprobe {

namespace {

constexpr int kWaitSeconds = 3600;  // any wait will do: time-outs are nothing
constexpr int kPauseSeconds = 1;
constexpr int kPortAttempts = 16;

struct Server {
  FileDescriptor listener;
  FileDescriptor responder;
  std::uint16_t port = 0;
};

ErrorText open_both(const Options& options, Server& server) {
  if (ErrorText error =
          listen_on(options.listen, options.port, server.listener)) {
    return error;
  }
  if (!socket_local_address(server.listener.get(), nullptr, &server.port)) {
    return "Error reading the port chosen by the system";
  }
  if (!options.discovery) return {};
  return open_responder(server.port, server.responder);
}

// open_server tries again when the system chose a TCP port whose number is
// taken among the UDP ports.
ErrorText open_server(const Options& options, Server& server) {
  const int num_attempts = options.port == 0 ? kPortAttempts : 1;
  ErrorText error;
  for (int attempt = 0; attempt < num_attempts; ++attempt) {
    error = open_both(options, server);
    if (!error) break;
  }
  return error;
}

bool is_ready(const FileDescriptor& socket) {
  return socket && socket_wait_readable(socket.get(), 0);
}

// wait_for_work waits for a client, a query or the wish to stop.
//   "Error waiting for clients: %s"
ErrorText wait_for_work(const Server& server, bool& out_stop) {
  constexpr std::size_t kStop = 0;
  const std::int32_t sockets[] = {stop_descriptor(), server.listener.get(),
                                  server.responder.get()};
  const std::span<const std::int32_t> waited(sockets, server.responder ? 3 : 2);
  std::size_t first = 0;
  const WaitResult result = wait_for_any(
      waited, WaitFor::kReadable, kWaitSeconds, OnSignal::kRestart, first);
  if (result == WaitResult::kError) {
    return os_failure("Error waiting for clients");
  }
  out_stop = result == WaitResult::kReady && first == kStop;
  return {};
}

// serve_next is false when no client could be had after all.
bool serve_next(const Server& server, const AnswerPolicy& policy) {
  Client client;
  if (accept_connection(server.listener, client.socket, client.address,
                        client.port)) {
    // The system may be short of something: no use in asking at full speed.
    static_cast<void>(socket_wait_readable(stop_descriptor(), kPauseSeconds));
    return false;
  }
  serve_session(std::move(client), policy);
  return true;
}

}  // namespace

ErrorText run_server(const Options& options) {
  Server server;
  if (ErrorText error = start_socket_subsystem()) return error;
  if (ErrorText error = watch_signals()) return error;
  if (ErrorText error = open_server(options, server)) return error;
  std::printf("Listening on %s:%u\n", address_text(options.listen),
              server.port);
  std::fflush(stdout);

  std::uint32_t num_sessions = 0;
  for (bool stop = false;;) {
    if (ErrorText error = wait_for_work(server, stop)) return error;
    if (stop) return {};
    // One of each in turn: a flood of one kind does not starve the other.
    if (is_ready(server.responder)) {
      answer_query(server.responder, options.listen);
    }
    if (is_ready(server.listener) && serve_next(server, options.answer) &&
        ++num_sessions == options.sessions) {
      return {};
    }
  }
}

}  // namespace velprobe
