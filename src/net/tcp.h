// TCP connections over IPv4. On a non-blocking socket (CONNECT_NONBLOCKING) no
// call waits without a limit; on a blocking one the system decides.
//
// A deadline bounds a whole call on a non-blocking socket, beside the limit of
// each wait: once it has come, a call neither waits nor moves another byte, and
// fails with the text of a time-out.
//
// A socket handle is an OS descriptor in a variable of the caller. Failures are
// texts of format_error_text around the system's own.
#ifndef VELPROBE_NET_TCP_H_
#define VELPROBE_NET_TCP_H_

#include <cstddef>
#include <cstdint>

#include "../util/deadline.h"
#include "../util/error_text.h"
#include "address.h"

#pragma GCC visibility push(default)
namespace velprobe {

// Connect flags, to be combined with |.
inline constexpr std::uint32_t CONNECT_NONBLOCKING = 1;
inline constexpr std::uint32_t CONNECT_NODELAY = 2;  // TCP_NODELAY
inline constexpr std::uint32_t CONNECT_CORK = 4;     // TCP_CORK

// Seconds: the limit of a connect, and of each single wait inside socket_recv
// and socket_send unless set_socket_timeout changed it.
inline constexpr int kConnectTimeout = 600;
inline constexpr int kDefaultSocketTimeout = 600;

// start_socket_subsystem makes the process ignore SIGPIPE, so that a write to a
// closed connection fails with EPIPE instead of ending the process.
//   "sigaction on SIGPIPE failed: %s"
ErrorText start_socket_subsystem();

// set_socket_timeout bounds, in seconds, every single wait of socket_recv and
// socket_send in the calling thread from now on; 0 restores the default. It
// bounds a wait, not a call: without a deadline a transfer that keeps moving
// never times out. Always returns 600.
int set_socket_timeout(int seconds);

// socket_apply_flags gives a socket the mode that the connect flags name:
// non-blocking or, without that flag, blocking, and the TCP options.
//   "Error setting socket to nonblocking: %s"
//   "Error setting TCP_NODELAY: %s"
//   "Error setting TCP_CORK: %s"
ErrorText socket_apply_flags(std::int32_t socket, std::uint32_t flags);

// socket_connect opens a TCP connection and stores its handle in out_socket. It
// stays in the mode that the flags chose. A failure closes the socket;
// out_socket keeps the stale number.
//   "Error creating socket: %s"
//   the texts of socket_apply_flags
//   "Error connecting: %s"
//   "Connection timed out": after 600 seconds, or at the deadline
//   "Error waiting for connect: %s": a signal too
//   "Error retrieving connection status: %s"
ErrorText socket_connect(const Ipv4Address& address, std::uint16_t port,
                         std::int32_t& out_socket, std::uint32_t flags,
                         Deadline deadline = kNoDeadline);

// socket_wait_readable waits at most so many seconds, and not beyond the
// deadline, for incoming data, on stream and datagram sockets alike. Signals
// restart it. False on a time-out and on any error.
bool socket_wait_readable(std::int32_t socket, int seconds,
                          Deadline deadline = kNoDeadline);

// socket_recv stores what one read gives, 1 to capacity bytes, in buffer and
// their count in out_received; a count of 0 means that the peer has closed.
//   "Timeout in socket_recv()"
//   "Unknown error in socket_recv(): %s"
ErrorText socket_recv(std::int32_t socket, void* buffer, std::size_t capacity,
                      std::size_t& out_received,
                      Deadline deadline = kNoDeadline);

// socket_send sends all bytes. Unlike in a receive, a signal ends its wait.
//   "Timeout in socket_send()"
//   "Other end closed connection": EPIPE
//   "write() wrote too much"
//   "Unknown error in socket_send(): %s": a signal too
ErrorText socket_send(std::int32_t socket, const void* bytes,
                      std::size_t length, Deadline deadline = kNoDeadline);

// socket_flush sends what TCP_CORK holds back, by turning it off and on again.
//   "Error setting TCP_CORK: %s"
ErrorText socket_flush(std::int32_t socket);

// socket_close makes the socket blocking, shuts both directions down and closes
// it; only the close can fail. With a deadline, whichever, it does not wait for
// a peer that takes no more: an SO_LINGER with a time is turned off, and the
// system sends in the background what is left.
//   "Error closing socket: %s"
ErrorText socket_close(std::int32_t socket, Deadline deadline = kNoDeadline);

// socket_local_address stores the local end of a socket in the places given;
// either may be null. False when the system does not tell.
bool socket_local_address(std::int32_t socket, Ipv4Address* out_address,
                          std::uint16_t* out_port);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_NET_TCP_H_
