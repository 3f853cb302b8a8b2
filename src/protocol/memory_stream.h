// A stream in memory: what is written waits there to be read. It lets messages
// be encoded for storage, and codec and messages run without a socket.
#ifndef VELPROBE_PROTOCOL_MEMORY_STREAM_H_
#define VELPROBE_PROTOCOL_MEMORY_STREAM_H_

#include <string_view>

#include "../util/error_text.h"
#include "ber_stream.h"

#pragma GCC visibility push(default)
namespace velprobe {

// memory_stream_open makes a stream with the given bytes to be read. On failure
// out_stream is null.
//   "Error allocating memory"
//
// The stream's operations fail with
//   "Peer closed connection unexpectedly": a read past the last byte
//   "Error allocating memory": a write
ErrorText memory_stream_open(BerStreamPtr& out_stream,
                             std::string_view bytes = {});

// memory_stream_bytes gives the bytes that are written and not yet read. The
// view ends with the next operation on the stream.
std::string_view memory_stream_bytes(const BerStream& stream);

// memory_stream_clear forgets every byte and keeps the memory for the next use.
void memory_stream_clear(BerStream& stream);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROTOCOL_MEMORY_STREAM_H_
