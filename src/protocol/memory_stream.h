// A stream in memory: what is written waits there to be read. It lets messages
// be encoded for storage, and codec and messages run without a socket.
#ifndef VELPROBE_PROTOCOL_MEMORY_STREAM_H_
#define VELPROBE_PROTOCOL_MEMORY_STREAM_H_

#include <string_view>

#include "../util/error_text.h"
#include "ber_stream.h"

#pragma GCC visibility push(default)
namespace velprobe {

// memory_stream_open makes an empty stream and fills it with the given bytes.
// Reading past the last byte is "Peer closed connection unexpectedly"; a write
// for which memory is short, as the opening itself, "Error allocating memory".
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
