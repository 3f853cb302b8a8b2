#include "socket_stream.h"

#include <memory>
#include <new>

#include "../net/tcp.h"

namespace velprobe {
namespace {

// SocketStream's members behind the table are its own business; state points
// back at the whole.
struct SocketStream : BerStream {
  // 1 after a write that no flush or read has pushed out yet.
  std::uint32_t output_pending;
  std::int32_t socket;
  Deadline deadline;
};

SocketStream* own_state(BerStream* stream) {
  return static_cast<SocketStream*>(stream->state);
}

ErrorText socket_read(BerStream* stream, void* buffer, std::size_t size) {
  SocketStream* self = own_state(stream);
  // The kernel holds back what is corked: a half-sent request would wait for
  // its answer forever. Whether the flush worked, the read will show.
  if (self->output_pending != 0) {
    static_cast<void>(stream->operations.flush(stream));
  }

  auto* next = static_cast<char*>(buffer);
  while (size > 0) {
    std::size_t received = 0;
    if (ErrorText error =
            socket_recv(self->socket, next, size, received, self->deadline)) {
      return error.wrapped(
          format_error_text("Error receiving data: %s", error.c_str()));
    }
    if (received == 0) return kPeerClosed;
    next += received;
    size -= received;
  }
  // Only now: until an answer comes, a flush that failed is tried again.
  self->output_pending = 0;
  return {};
}

// The codec writes a message in many small pieces. The corked socket makes full
// segments of them, so that no buffer is needed here; the kernel holds the last
// one back for up to 200 milliseconds unless a flush comes first.
ErrorText socket_write_buf(BerStream* stream, const void* bytes,
                           std::size_t size) {
  SocketStream* self = own_state(stream);
  if (ErrorText error =
          socket_send(self->socket, bytes, size, self->deadline)) {
    return error.wrapped(format_error_text(
        "socket_send returned error in socket_write_buf: %s", error.c_str()));
  }
  self->output_pending = 1;
  return {};
}

ErrorText socket_flush_output(BerStream* stream) {
  SocketStream* self = own_state(stream);
  if (ErrorText error = socket_flush(self->socket)) {
    return error.wrapped(
        format_error_text("socket_flush returned error: %s", error.c_str()));
  }
  self->output_pending = 0;
  return {};
}

bool socket_await(BerStream* stream, int seconds) {
  const SocketStream* self = own_state(stream);
  return socket_wait_readable(self->socket, seconds, self->deadline);
}

void socket_hang_up(BerStream* stream) {
  const std::unique_ptr<SocketStream> self(own_state(stream));
  if (self->output_pending != 0) {
    static_cast<void>(stream->operations.flush(stream));
  }
  static_cast<void>(socket_close(self->socket, self->deadline));
}

std::unique_ptr<SocketStream> new_socket_stream(Deadline deadline) {
  std::unique_ptr<SocketStream> stream(new (std::nothrow) SocketStream);
  if (!stream) return nullptr;
  stream->operations = {socket_read, socket_write_buf, socket_flush_output,
                        socket_await, socket_hang_up};
  stream->state = stream.get();
  stream->output_pending = 0;
  stream->socket = -1;
  stream->deadline = deadline;
  return stream;
}

}  // namespace

ErrorText socket_stream_open(BerStreamPtr& out_stream,
                             const Ipv4Address& address, std::uint16_t port,
                             std::uint32_t connect_flags, Deadline deadline) {
  out_stream.reset();
  std::unique_ptr<SocketStream> stream = new_socket_stream(deadline);
  if (!stream) return kNoStreamMemory;
  connect_flags |= CONNECT_CORK;
  if (deadline != kNoDeadline) connect_flags |= CONNECT_NONBLOCKING;
  if (ErrorText error = socket_connect(address, port, stream->socket,
                                       connect_flags, deadline)) {
    return error;
  }
  out_stream.reset(stream.release());
  return {};
}

ErrorText socket_stream_adopt(BerStreamPtr& out_stream, std::int32_t socket,
                              Deadline deadline) {
  out_stream.reset();
  std::unique_ptr<SocketStream> stream = new_socket_stream(deadline);
  if (!stream) return kNoStreamMemory;
  if (ErrorText error =
          socket_apply_flags(socket, CONNECT_NONBLOCKING | CONNECT_CORK)) {
    return error;
  }
  stream->socket = socket;
  out_stream.reset(stream.release());
  return {};
}

std::int32_t socket_stream_handle(const BerStream& stream) {
  return static_cast<const SocketStream&>(stream).socket;
}

}  // namespace velprobe
