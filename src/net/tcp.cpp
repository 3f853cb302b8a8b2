#include "tcp.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "../util/owners.h"
#include "system_socket.h"
#include "wait.h"

namespace velprobe {

namespace {

thread_local int socket_timeout = kDefaultSocketTimeout;

bool set_tcp_option(int socket, int option, int value) {
  return ::setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

constexpr ErrorText kConnectTimedOut{"Connection timed out", ETIMEDOUT};
constexpr ErrorText kReceiveTimedOut{"Timeout in socket_recv()", ETIMEDOUT};
constexpr ErrorText kSendTimedOut{"Timeout in socket_send()", ETIMEDOUT};

// A signal ends the waits of a connect and a send, whose caller has to know
// what became of its request. A receive, which has nothing to lose, goes on for
// the rest of its time.
constexpr OnSignal kOnSignalToSend = OnSignal::kReport;
constexpr OnSignal kOnSignalToReceive = OnSignal::kRestart;

ErrorText finish_connect(int socket, Deadline deadline) {
  switch (wait_for_socket(socket, WaitFor::kWritable, kConnectTimeout,
                          kOnSignalToSend, deadline)) {
    case WaitResult::kTimeout:
      return kConnectTimedOut;
    case WaitResult::kError:
      return os_failure("Error waiting for connect");
    case WaitResult::kReady:
      break;
  }
  int pending = 0;
  socklen_t size = sizeof pending;
  if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &size) < 0) {
    return os_failure("Error retrieving connection status");
  }
  if (pending != 0) {
    errno = pending;
    return os_failure("Error connecting");
  }
  return {};
}

ErrorText connect_to(int socket, const Ipv4Address& address, std::uint16_t port,
                     Deadline deadline) {
  if (is_past(deadline)) return kConnectTimedOut;
  const sockaddr_in peer = to_sockaddr(address, port);
  if (::connect(socket, as_sockaddr(&peer), sizeof peer) == 0) return {};
  if (errno != EINPROGRESS) return os_failure("Error connecting");
  return finish_connect(socket, deadline);
}

// A time of 0, a reset instead of the farewell, costs no wait and stays.
void stop_lingering(int socket) {
  linger current{};
  socklen_t size = sizeof current;
  ::getsockopt(socket, SOL_SOCKET, SO_LINGER, &current, &size);
  if (current.l_onoff == 0 || current.l_linger == 0) return;
  const linger none{};
  ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

}  // namespace

ErrorText start_socket_subsystem() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  if (::sigaction(SIGPIPE, &action, nullptr) < 0) {
    return os_failure("sigaction on SIGPIPE failed");
  }
  return {};
}

int set_socket_timeout(int seconds) {
  socket_timeout = seconds > 0 ? seconds : kDefaultSocketTimeout;
  return kDefaultSocketTimeout;
}

ErrorText socket_apply_flags(std::int32_t socket, std::uint32_t flags) {
  const int status = flags & CONNECT_NONBLOCKING ? O_NONBLOCK : 0;
  if (::fcntl(socket, F_SETFL, status) < 0) {
    return os_failure("Error setting socket to nonblocking");
  }
  if (flags & CONNECT_NODELAY && !set_tcp_option(socket, TCP_NODELAY, 1)) {
    return os_failure("Error setting TCP_NODELAY");
  }
  if (flags & CONNECT_CORK && !set_tcp_option(socket, TCP_CORK, 1)) {
    return os_failure("Error setting TCP_CORK");
  }
  return {};
}

ErrorText socket_connect(const Ipv4Address& address, std::uint16_t port,
                         std::int32_t& out_socket, std::uint32_t flags,
                         Deadline deadline) {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  out_socket = socket.get();
  if (!socket) return os_failure("Error creating socket");
  if (ErrorText error = socket_apply_flags(socket.get(), flags)) return error;
  if (ErrorText error = connect_to(socket.get(), address, port, deadline)) {
    return error;
  }
  socket.release();
  return {};
}

bool socket_wait_readable(std::int32_t socket, int seconds, Deadline deadline) {
  return wait_for_socket(socket, WaitFor::kReadable, seconds,
                         kOnSignalToReceive, deadline) == WaitResult::kReady;
}

ErrorText socket_recv(std::int32_t socket, void* buffer, std::size_t capacity,
                      std::size_t& out_received, Deadline deadline) {
  for (;;) {
    // A peer that keeps the bytes coming never lets it come to a wait.
    if (is_past(deadline)) return kReceiveTimedOut;
    const ssize_t received = ::read(socket, buffer, capacity);
    if (received >= 0) {
      out_received = static_cast<std::size_t>(received);
      return {};
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) break;

    const WaitResult wait =
        wait_for_socket(socket, WaitFor::kReadable, socket_timeout,
                        kOnSignalToReceive, deadline);
    if (wait == WaitResult::kTimeout) return kReceiveTimedOut;
    if (wait == WaitResult::kError) break;
  }
  return os_failure("Unknown error in socket_recv()");
}

ErrorText socket_send(std::int32_t socket, const void* bytes,
                      std::size_t length, Deadline deadline) {
  const char* next = static_cast<const char*>(bytes);
  do {
    if (is_past(deadline)) return kSendTimedOut;
    const ssize_t result = ::write(socket, next, length);
    if (result >= 0) {
      const auto written = static_cast<std::size_t>(result);
      if (written > length) return "write() wrote too much";
      next += written;
      length -= written;
      continue;
    }
    if (errno == EPIPE) return {"Other end closed connection", EPIPE};
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return os_failure("Unknown error in socket_send()");

    const WaitResult wait = wait_for_socket(
        socket, WaitFor::kWritable, socket_timeout, kOnSignalToSend, deadline);
    if (wait == WaitResult::kTimeout) return kSendTimedOut;
    if (wait == WaitResult::kError) {
      return os_failure("Unknown error in socket_send()");
    }
  } while (length > 0);
  return {};
}

ErrorText socket_flush(std::int32_t socket) {
  // Taking the cork out sends what the system holds back; putting it in again
  // lets the next small writes gather.
  if (!set_tcp_option(socket, TCP_CORK, 0) ||
      !set_tcp_option(socket, TCP_CORK, 1)) {
    return os_failure("Error setting TCP_CORK");
  }
  return {};
}

ErrorText socket_close(std::int32_t socket, Deadline deadline) {
  if (deadline != kNoDeadline) stop_lingering(socket);
  ::fcntl(socket, F_SETFL, 0);
  ::shutdown(socket, SHUT_RDWR);
  if (::close(socket) < 0) return os_failure("Error closing socket");
  return {};
}

bool socket_local_address(std::int32_t socket, Ipv4Address* out_address,
                          std::uint16_t* out_port) {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (::getsockname(socket, as_sockaddr(&local), &size) < 0) return false;
  if (local.sin_family != AF_INET) return false;
  if (out_address != nullptr) *out_address = address_of(local);
  if (out_port != nullptr) *out_port = port_of(local);
  return true;
}

}  // namespace velprobe
