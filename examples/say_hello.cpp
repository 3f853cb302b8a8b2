// say_hello HOST PORT: announces the agent "example" and shows the answer.
#include <velprobe/net/resolver.h>
#include <velprobe/net/tcp.h>
#include <velprobe/protocol/ber_codec.h>
#include <velprobe/protocol/messages.h>
#include <velprobe/protocol/socket_stream.h>

#include <cstdio>

using namespace velprobe;

static ErrorText send_request(BerStream& stream) {
  client_wants wants;
  wants.version = 0x0202;
  client_private_key agent;
  agent.name = copy_text("example");
  if (!agent.name) return "Out of memory";
  if (ErrorText error = write_client_wants(stream, wants)) return error;
  if (ErrorText error = write_client_private_key(stream, agent)) return error;
  return write_end_of_contents(stream);
}

static ErrorText show_answer(BerStream& stream) {
  std::uint32_t tag = 0;
  if (ErrorText error = read_tag(stream, tag)) return error;
  if (tag == kTagOf_negotiate_nack) {
    negotiate_nack nack;
    if (ErrorText error = read_negotiate_nack(stream, nack, tag)) return error;
    std::printf("refused: %s\n", nack.reason.get());
    return {};
  }
  server_offers offer;
  if (ErrorText error = read_server_offers_incomplete(stream, offer, tag)) {
    return error;
  }
  std::printf("offered: version 0x%04X\n",
              static_cast<unsigned>(offer.version));
  return skip_to_eol(stream);
}

static ErrorText say_hello(const char* host, std::uint64_t port) {
  Ipv4Address address{};
  BerStreamPtr stream;
  if (ErrorText error = start_socket_subsystem()) return error;
  if (ErrorText error = resolve_host(host, address)) return error;
  if (ErrorText error = socket_stream_open(
          stream, address, static_cast<std::uint16_t>(port), 0)) {
    return error;
  }
  if (ErrorText error = send_request(*stream)) return error;
  return show_answer(*stream);
}

int main(int argc, char** argv) {
  ErrorText error = "Usage: say_hello HOST PORT";
  if (argc == 3) error = say_hello(argv[1], parse_decimal(argv[2]));
  if (error) std::fprintf(stderr, "%s\n", error.c_str());
  return error ? 1 : 0;
}
