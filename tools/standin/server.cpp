#include "server.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <span>
#include <utility>

#include "discovery_responder.h"
#include "log.h"
#include "net/listener.h"
#include "net/tcp.h"
#include "net/wait.h"
#include "session_pool.h"
#include "signals.h"
#include "thread.h"
#include "util/owners.h"

namespace velprobe::standin {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWaitSeconds = 3600;  // any wait will do: time-outs are nothing
constexpr std::chrono::seconds kPause{1};
constexpr std::chrono::minutes kSilence{1};
constexpr int kPortAttempts = 16;

// SummaryTeller tells summaries in a thread of its own: where standard output
// is not read, clients and signals are still served.
class SummaryTeller {
 public:
  SummaryTeller(Log& log, NodeRegister& nodes, SessionPool& pool)
      : log_(log), nodes_(nodes), pool_(pool) {}
  SummaryTeller(const SummaryTeller&) = delete;
  SummaryTeller& operator=(const SummaryTeller&) = delete;
  ~SummaryTeller() { stop(); }

  // ask has a summary told as soon as one that is being told is out.
  //   "Error starting thread: %s"
  ErrorText ask() {
    if (!thread_) {
      if (ErrorText error = thread_.start(run, this)) return error;
    }
    const std::lock_guard lock(mutex_);
    is_wanted_ = true;
    change_.notify_one();
    return {};
  }

  void stop() {
    {
      const std::lock_guard lock(mutex_);
      is_stopping_ = true;
      change_.notify_one();
    }
    thread_.join();
  }

 private:
  static void* run(void* teller) {
    SummaryTeller& own = *static_cast<SummaryTeller*>(teller);
    while (own.await_wish()) {
      own.log_.tell_summary(own.nodes_);
      if (own.log_.failure()) own.pool_.ring_bell();
    }
    return nullptr;
  }

  bool await_wish() {
    std::unique_lock lock(mutex_);
    change_.wait(lock, [this] { return is_wanted_ || is_stopping_; });
    return std::exchange(is_wanted_, false) && !is_stopping_;
  }

  Log& log_;
  NodeRegister& nodes_;
  SessionPool& pool_;
  Thread thread_;
  std::mutex mutex_;
  std::condition_variable change_;
  // Under the mutex.
  bool is_wanted_ = false;
  bool is_stopping_ = false;
};

// Server is all that runs; what has threads goes first.
struct Server {
  explicit Server(const Options& chosen) : options(chosen) {}

  const Options& options;
  Log log;
  NodeRegister nodes;
  FileDescriptor signals;
  FileDescriptor listener;
  Responder responder;
  std::uint16_t port = 0;
  std::uint64_t num_accepted = 0;
  Deadline pause_end = Deadline::min();
  Deadline silence_end = Deadline::min();
  bool is_stopping = false;
  bool prefers_queries = false;
  SessionPool pool;
  SummaryTeller summary{log, nodes, pool};
};

void serve(void* context, Seat& seat, Client client) {
  Server& server = *static_cast<Server*>(context);
  SessionRecord record;
  serve_session(seat, std::move(client), server.options.rules, server.nodes,
                record);
  server.log.tell_session(record);
  if (server.log.failure()) server.pool.ask_for_bell();
}

ErrorText open_both(Server& server) {
  const Options& options = server.options;
  if (ErrorText error =
          listen_on(options.listen, options.port, server.listener)) {
    return error;
  }
  if (!socket_local_address(server.listener.get(), nullptr, &server.port)) {
    return "Error reading the port chosen by the system";
  }
  if (!options.discovery) return {};
  server.responder.own_address = options.listen;
  return open_responder(server.port, options.query_troubles, server.responder);
}

// open_sockets tries again when the system chose a TCP port whose number is
// taken among the UDP ports.
ErrorText open_sockets(Server& server) {
  const int num_attempts = server.options.port == 0 ? kPortAttempts : 1;
  ErrorText error;
  for (int attempt = 0; attempt < num_attempts; ++attempt) {
    error = open_both(server);
    if (!error) break;
  }
  return error;
}

ErrorText load_nodes(Server& server, bool is_again) {
  NodeTable table;
  for (const char* entry : server.options.nodes) {
    if (ErrorText error = table.add_entry(entry)) return error;
  }
  if (const char* const file = server.options.node_file) {
    if (ErrorText error = table.load_file(file, is_again)) return error;
  }
  table.sort();
  server.nodes.replace(std::move(table));
  return {};
}

void complain(const char* what, const char* then) {
  std::fprintf(stderr, "velstandin: %s; %s\n", what, then);
}

void reload_nodes(Server& server) {
  if (ErrorText error = load_nodes(server, true)) {
    complain(error.c_str(), "the nodes stay as they are");
  }
}

void tell_summary(Server& server) {
  if (ErrorText error = server.summary.ask()) {
    complain(error.c_str(), "no summary is told");
  }
}

void stop(Server& server) {
  server.is_stopping = true;
  forget_stop_signals(server.signals);
  server.pool.cut_all("cut off: stopping");
}

void obey_signal(Server& server) {
  switch (take_signal(server.signals)) {
    case SIGINT:
    case SIGTERM:
      return stop(server);
    case SIGHUP:
      return reload_nodes(server);
    case SIGUSR1:
      return tell_summary(server);
  }
}

bool has_accepted_all(const Server& server) {
  return server.options.sessions != 0 &&
         server.num_accepted == server.options.sessions;
}

// pause_accepting waits for room and makes some. It says why, once for as long
// as shortages follow each other.
void pause_accepting(Server& server, ErrorText why) {
  const Deadline now = Clock::now();
  if (now >= server.silence_end) complain(why.c_str(), "waiting for room");
  server.silence_end = now + kSilence;
  server.pool.ask_for_bell();
  server.pause_end = std::min(now + kPause, server.pool.make_room());
}

// A client that has gone before it was accepted is no shortage.
bool is_passing(int error_number) {
  return error_number == EAGAIN || error_number == EINTR ||
         error_number == ECONNABORTED;
}

void accept_next(Server& server) {
  Seat* seat = nullptr;
  if (ErrorText error = server.pool.find_seat(seat)) {
    return pause_accepting(server, error);
  }
  if (seat == nullptr) return;
  Client client;
  client.number = server.num_accepted;
  if (ErrorText error = accept_connection(server.listener, client.socket,
                                          client.address, client.port)) {
    if (!is_passing(error.error_number())) pause_accepting(server, error);
    return;
  }
  ++server.num_accepted;
  server.pool.seat(*seat, std::move(client));
}

// Work is what the loop waits for, and until when.
struct Work {
  std::array<std::int32_t, 4> sockets;
  std::size_t num_sockets = 0;
  Deadline deadline = kNoDeadline;

  void wait_for(std::int32_t socket) { sockets[num_sockets++] = socket; }
};

// wait_for_clients adds the listener, unless a pause or full seats forbid.
void wait_for_clients(Server& server, Work& work) {
  if (server.is_stopping || has_accepted_all(server)) return;
  Seat* seat = nullptr;
  if (is_past(server.pause_end)) {
    if (ErrorText error = server.pool.find_seat(seat)) {
      pause_accepting(server, error);
    }
  }
  if (!is_past(server.pause_end)) {
    work.deadline = std::min(work.deadline, server.pause_end);
  } else if (seat != nullptr ||
             !socket_wait_readable(server.listener.get(), 0)) {
    work.wait_for(server.listener.get());
  } else {
    work.deadline = std::min(work.deadline, server.pool.make_room());
  }
}

Work next_work(Server& server) {
  Work work;
  work.deadline = next_late_answer(server.responder);
  work.wait_for(server.signals.get());
  work.wait_for(server.pool.bell());
  // One of each in turn: a flood of one kind does not starve the other.
  server.prefers_queries = !server.prefers_queries;
  if (server.prefers_queries && server.responder.socket) {
    work.wait_for(server.responder.socket.get());
  }
  wait_for_clients(server, work);
  if (!server.prefers_queries && server.responder.socket) {
    work.wait_for(server.responder.socket.get());
  }
  return work;
}

void do_work(Server& server, std::int32_t ready) {
  if (ready == server.signals.get()) return obey_signal(server);
  if (ready == server.pool.bell()) {
    server.pause_end = Deadline::min();  // a session left its descriptor
    return server.pool.silence_bell();
  }
  if (ready == server.listener.get()) return accept_next(server);
  answer_query(server.responder, server.options.query_troubles);
}

ErrorText run(Server& server) {
  for (;;) {
    if (!server.is_stopping && server.log.failure()) stop(server);
    if ((server.is_stopping || has_accepted_all(server)) &&
        server.pool.is_idle()) {
      return {};
    }
    const Work work = next_work(server);
    std::size_t first = 0;
    switch (wait_for_any(std::span(work.sockets).first(work.num_sockets),
                         WaitFor::kReadable, kWaitSeconds, OnSignal::kRestart,
                         first, work.deadline)) {
      case WaitResult::kError:
        return os_failure("Error waiting for clients");
      case WaitResult::kReady:
        do_work(server, work.sockets[first]);
        break;
      case WaitResult::kTimeout:
        break;
    }
    answer_late_queries(server.responder);
  }
}

}  // namespace

ErrorText run_server(const Options& options) {
  Server server(options);
  if (ErrorText error = start_socket_subsystem()) return error;
  if (ErrorText error = load_nodes(server, false)) return error;
  // A terminal that is closed ends the program, as usual. Elsewhere a reload
  // with nothing to read is no reason to end.
  const bool with_hangup =
      options.node_file != nullptr || ::isatty(STDIN_FILENO) == 0;
  if (ErrorText error = watch_signals(with_hangup, server.signals)) {
    return error;
  }
  if (ErrorText error = open_sockets(server)) return error;
  if (ErrorText error =
          server.pool.open(options.max_sessions, serve, &server)) {
    return error;
  }
  server.log.open(options.log);
  if (ErrorText error =
          server.log.tell_listening(options.listen, server.port)) {
    return error;
  }
  ErrorText error = run(server);
  forget_stop_signals(server.signals);
  if (error) return error;
  server.summary.stop();
  server.log.tell_summary(server.nodes);
  return server.log.failure();
}

}  // namespace velprobe::standin
