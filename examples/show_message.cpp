// show_message NAME PORT: encodes a message in memory, shows its bytes, and
// decodes them again.
#include <velprobe/protocol/memory_stream.h>
#include <velprobe/protocol/messages.h>

#include <cstdio>

using namespace velprobe;

static ErrorText encode(BerStream& stream, const char* name,
                        std::int32_t port) {
  server_name_port message;
  message.name = copy_text(name);
  if (!message.name) return "Out of memory";
  message.port = port;
  return write_server_name_port(stream, message);
}

static ErrorText decode(BerStream& stream) {
  server_name_port message;
  if (ErrorText error = read_server_name_port(stream, message, 0)) return error;
  std::printf("\n%s port %d\n", message.name.get(), message.port);
  return {};
}

static ErrorText show_message(const char* name, std::int32_t port) {
  BerStreamPtr stream;
  if (ErrorText error = memory_stream_open(stream)) return error;
  if (ErrorText error = encode(*stream, name, port)) return error;
  for (const char byte : memory_stream_bytes(*stream)) {
    std::printf("%02X ",
                static_cast<unsigned>(static_cast<unsigned char>(byte)));
  }
  return decode(*stream);
}

int main(int argc, char** argv) {
  ErrorText error = "Usage: show_message NAME PORT";
  if (argc == 3) {
    error = show_message(argv[1],
                         static_cast<std::int32_t>(parse_decimal(argv[2])));
  }
  if (error) std::fprintf(stderr, "%s\n", error.c_str());
  return error ? 1 : 0;
}
