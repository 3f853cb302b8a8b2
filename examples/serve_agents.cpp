// serve_agents PORT: offers the protocol to every agent that gives a name, one
// agent after the other, and has 10 seconds for each.
#include <velprobe/net/listener.h>
#include <velprobe/net/tcp.h>
#include <velprobe/protocol/ber_codec.h>
#include <velprobe/protocol/messages.h>
#include <velprobe/protocol/socket_stream.h>
#include <velprobe/util/printable_text.h>

#include <chrono>
#include <cstdio>

using namespace velprobe;

static ErrorText refuse(BerStream& stream, const char* reason) {
  negotiate_nack refusal;
  refusal.reason = copy_text(reason);
  if (!refusal.reason) return "Out of memory";
  return write_negotiate_nack(stream, refusal);  // the close sends it
}

static ErrorText offer(BerStream& stream) {
  server_offers offers;
  offers.version = 0x0202;
  if (ErrorText error = write_server_offers(stream, offers)) return error;
  if (ErrorText error = write_server_private_key(stream, {})) return error;
  if (ErrorText error = write_end_of_contents(stream)) return error;
  return read_negotiate_ack(stream, 0);  // the read sends the offer first
}

static ErrorText serve(BerStream& stream) {
  client_wants wants;
  client_private_key agent;
  ErrorText error = read_client_wants_incomplete(stream, wants, 0);
  if (!error) error = read_client_private_key(stream, agent, 0);
  if (!error) error = skip_to_eol(stream);
  if (error) return error;
  if (*agent.name.get() == '\0') return refuse(stream, "give a name");
  replace_control_bytes(agent.name.get());  // for the terminal's sake
  std::printf("agent %s\n", agent.name.get());
  return offer(stream);
}

static ErrorText serve_next(const FileDescriptor& listener) {
  FileDescriptor socket;
  Ipv4Address address{};
  std::uint16_t port = 0;
  if (!socket_wait_readable(listener.get(), 3600)) return {};
  ErrorText error = accept_connection(listener, socket, address, port);
  if (error) return error;
  BerStreamPtr stream;
  const Deadline end =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  error = socket_stream_adopt(stream, socket.get(), end);
  if (error) return error;
  socket.release();  // it is the stream's now
  return serve(*stream);
}

static ErrorText run(std::uint16_t port) {
  FileDescriptor listener;
  if (ErrorText error = start_socket_subsystem()) return error;
  if (ErrorText error = listen_on({127, 0, 0, 1}, port, listener)) return error;
  socket_local_address(listener.get(), nullptr, &port);
  std::printf("Listening on 127.0.0.1:%u\n", port);
  for (;;) {
    std::fflush(stdout);
    if (ErrorText error = serve_next(listener)) std::puts(error.c_str());
  }
}

int main(int argc, char** argv) {
  ErrorText error = "Usage: serve_agents PORT";
  if (argc == 2) {
    error = run(static_cast<std::uint16_t>(parse_decimal(argv[1])));
  }
  std::fprintf(stderr, "%s\n", error.c_str());
  return 1;
}
