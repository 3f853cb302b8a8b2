// The stream that carries the agent protocol over a TCP connection.
#ifndef VELPROBE_PROTOCOL_SOCKET_STREAM_H_
#define VELPROBE_PROTOCOL_SOCKET_STREAM_H_

#include <cstdint>

#include "../net/address.h"
#include "../util/deadline.h"
#include "../util/error_text.h"
#include "ber_stream.h"

#pragma GCC visibility push(default)
namespace velprobe {

// socket_stream_open connects and hands the caller the stream. It keeps no
// buffer: the socket is corked (CONNECT_CORK joins the caller's flags), the
// kernel gathers the small writes of a message, and a flush, or the next read,
// sends them. On failure out_stream is null.
//   "Error allocating memory"
//   the texts of socket_connect
//
// The deadline bounds everything on the stream from the connect to the close,
// however the peer spreads its bytes; CONNECT_NONBLOCKING goes with it. From
// then on reads and writes fail with the text of a time-out and
// wait_readable is false. Without one each single wait has the limit of tcp.h.
//
// The stream's operations fail with
//   "Error receiving data: %s": a text of socket_recv
//   "Peer closed connection unexpectedly"
//   "socket_send returned error in socket_write_buf: %s": a text of socket_send
//   "socket_flush returned error: %s": a text of socket_flush
ErrorText socket_stream_open(BerStreamPtr& out_stream,
                             const Ipv4Address& address, std::uint16_t port,
                             std::uint32_t connect_flags,
                             Deadline deadline = kNoDeadline);

// socket_stream_adopt makes a stream of an accepted socket, which becomes
// non-blocking and corked. The stream owns the socket from then on; on failure
// it stays the caller's. The deadline is that of socket_stream_open.
//   "Error allocating memory"
//   the texts of socket_apply_flags
ErrorText socket_stream_adopt(BerStreamPtr& out_stream, std::int32_t socket,
                              Deadline deadline = kNoDeadline);

// socket_stream_handle gives the socket under a stream that one of the two
// above made. It stays the stream's.
std::int32_t socket_stream_handle(const BerStream& stream);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_SOCKET_STREAM_H_
