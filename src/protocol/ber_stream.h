// BerStream, the byte channel under the codec.
#ifndef VELPROBE_PROTOCOL_BER_STREAM_H_
#define VELPROBE_PROTOCOL_BER_STREAM_H_

#include <cerrno>
#include <cstddef>
#include <memory>

#include "../util/error_text.h"

#pragma GCC visibility push(default)
namespace velprobe {

struct BerStream;

// BerStreamOperations is what codec and messages know of a stream.
struct BerStreamOperations {
  // read blocks until exactly size bytes are in buffer.
  ErrorText (*read)(BerStream* stream, void* buffer, std::size_t size);
  // write takes all bytes; the channel may hold them back until a flush or
  // read.
  ErrorText (*write)(BerStream* stream, const void* bytes, std::size_t size);
  // flush pushes written bytes out now.
  ErrorText (*flush)(BerStream* stream);
  // wait_readable is true when bytes, or over a socket the peer's end, arrive
  // within so many whole seconds.
  bool (*wait_readable)(BerStream* stream, int seconds);
  // close flushes if needed, closes the channel and frees the stream.
  void (*close)(BerStream* stream);
};

// BerStream starts with its table of operations; what follows belongs to the
// kind of stream. One owner, one thread, from open to close.
struct BerStream {
  BerStreamOperations operations;
  // The implementation's own state.
  void* state;
};

// The failures of every kind of stream at an end before the bytes asked for,
// and for a shortage of memory.
inline constexpr ErrorText kPeerClosed{"Peer closed connection unexpectedly",
                                       ECONNRESET};
inline constexpr ErrorText kNoStreamMemory{"Error allocating memory", ENOMEM};

struct BerStreamCloser {
  void operator()(BerStream* stream) const { stream->operations.close(stream); }
};

// BerStreamPtr owns a stream: it is closed on every way out.
using BerStreamPtr = std::unique_ptr<BerStream, BerStreamCloser>;

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_BER_STREAM_H_
