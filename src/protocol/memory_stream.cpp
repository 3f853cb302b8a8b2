#include "memory_stream.h"

#include <cstring>
#include <memory>
#include <new>

#include "../util/byte_buffer.h"
#include "../util/text.h"

namespace velprobe {
namespace {

struct MemoryStream : BerStream {
  ByteBuffer bytes;
  std::size_t read_position = 0;
};

MemoryStream* own_state(BerStream* stream) {
  return static_cast<MemoryStream*>(stream->state);
}

ErrorText memory_read(BerStream* stream, void* buffer, std::size_t size) {
  MemoryStream* self = own_state(stream);
  if (size > self->bytes.size() - self->read_position) return kPeerClosed;
  if (size == 0) return {};
  std::memcpy(buffer, self->bytes.data() + self->read_position, size);
  self->read_position += size;
  return {};
}

ErrorText memory_write(BerStream* stream, const void* bytes, std::size_t size) {
  MemoryStream* self = own_state(stream);
  if (!self->bytes.append({static_cast<const char*>(bytes), size})) {
    return kNoStreamMemory;
  }
  return {};
}

ErrorText memory_flush(BerStream*) {
  return {};
}

bool memory_await(BerStream* stream, int) {
  return !memory_stream_bytes(*stream).empty();
}

void memory_close(BerStream* stream) {
  delete own_state(stream);
}

}  // namespace

ErrorText memory_stream_open(BerStreamPtr& out_stream, std::string_view bytes) {
  out_stream.reset();
  std::unique_ptr<MemoryStream> stream(new (std::nothrow) MemoryStream);
  if (!stream || !stream->bytes.append(bytes)) return kNoStreamMemory;
  stream->operations = {memory_read, memory_write, memory_flush, memory_await,
                        memory_close};
  stream->state = stream.get();
  out_stream.reset(stream.release());
  return {};
}

std::string_view memory_stream_bytes(const BerStream& stream) {
  const auto& self = static_cast<const MemoryStream&>(stream);
  return self.bytes.view().substr(self.read_position);
}

void memory_stream_clear(BerStream& stream) {
  MemoryStream* self = own_state(&stream);
  self->bytes.resize(0);
  self->read_position = 0;
}

}  // namespace velprobe
