// The value codec, messages of three sizes, a whole session in memory, and
// probes over loopback beside the bare exchange of the same bytes.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/listener.h"
#include "net/tcp.h"
#include "probe/check_in_probe.h"
#include "probe/crc32.h"
#include "probe/discovery_datagram.h"
#include "protocol/ber_codec.h"
#include "protocol/memory_stream.h"
#include "protocol/messages.h"

namespace velprobe {
namespace {

void require(ErrorText error) {
  if (error) std::abort();
}

BerStreamPtr new_stream() {
  BerStreamPtr stream;
  require(memory_stream_open(stream));
  return stream;
}

// Writes a value and reads it back, over and over.
template <typename Write, typename Read>
void round_trips(benchmark::State& state, Write write, Read read) {
  const BerStreamPtr stream = new_stream();
  for (auto _ : state) {
    memory_stream_clear(*stream);
    require(write(*stream));
    require(read(*stream));
  }
}

void BM_Integer(benchmark::State& state) {
  std::int32_t back = 0;
  round_trips(
      state,
      [](BerStream& s) {
        return write_signed_int(s, INT32_MIN, INT32_MAX, 123456);
      },
      [&](BerStream& s) {
        return read_signed_int(s, INT32_MIN, INT32_MAX, back, 0);
      });
}
BENCHMARK(BM_Integer);

void BM_Enumerated(benchmark::State& state) {
  std::uint32_t back = 0;
  round_trips(
      state, [](BerStream& s) { return write_enumerated(s, 3, BE_ENUMERATED); },
      [&](BerStream& s) { return read_enumerated(s, back, BE_ENUMERATED, 0); });
}
BENCHMARK(BM_Enumerated);

void BM_Boolean(benchmark::State& state) {
  int back = 0;
  round_trips(
      state, [](BerStream& s) { return write_bool(s, 1); },
      [&](BerStream& s) { return read_bool(s, back, 0); });
}
BENCHMARK(BM_Boolean);

void BM_String(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  Text back;
  round_trips(
      state, [&](BerStream& s) { return write_string(s, 1024, text.c_str()); },
      [&](BerStream& s) { return read_string(s, 1024, back, 0); });
}
BENCHMARK(BM_String)->Arg(0)->Arg(16)->Arg(1024);

void BM_Real(benchmark::State& state) {
  double back = 0;
  round_trips(
      state, [](BerStream& s) { return write_real(s, 1.5); },
      [&](BerStream& s) { return read_real(s, back, 0); });
}
BENCHMARK(BM_Real);

void BM_Null(benchmark::State& state) {
  round_trips(state, write_null, [](BerStream& s) { return read_null(s, 0); });
}
BENCHMARK(BM_Null);

void BM_BigNum1024(benchmark::State& state) {
  const BigNumPtr number = bn_power_of_two(1023);
  BigNumPtr back;
  round_trips(
      state, [&](BerStream& s) { return write_bignum(s, number.get()); },
      [&](BerStream& s) { return read_bignum(s, back, 0); });
}
BENCHMARK(BM_BigNum1024);

// A small, a typical and the largest message.
void BM_NegotiateAck(benchmark::State& state) {
  round_trips(state, write_negotiate_ack,
              [](BerStream& s) { return read_negotiate_ack(s, 0); });
}
BENCHMARK(BM_NegotiateAck);

void BM_CheckDescription(benchmark::State& state) {
  check_description record;
  record.id = 42;
  record.descriptionGood = copy_text("The disk has room enough.");
  record.descriptionWarn = copy_text("The disk is filling up.");
  record.descriptionAlert = copy_text("The disk is full.");
  check_description back;
  round_trips(
      state, [&](BerStream& s) { return write_check_description(s, record); },
      [&](BerStream& s) { return read_check_description(s, back, 0); });
}
BENCHMARK(BM_CheckDescription);

void BM_UpgradeResp1MiB(benchmark::State& state) {
  upgrade_resp record;
  record.data = copy_text(std::string(1 << 20, 'x'));
  upgrade_resp back;
  round_trips(
      state, [&](BerStream& s) { return write_upgrade_resp(s, record); },
      [&](BerStream& s) { return read_upgrade_resp(s, back, 0); });
  state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_UpgradeResp1MiB);

// --- A session ----------------------------------------------------------

ErrorText write_request(BerStream& stream) {
  client_wants wants;
  wants.version = kProtocolVersion;
  client_private_key key;
  key.name = copy_text("host1.example.org");
  key.domain = copy_text(".");
  if (ErrorText error = write_client_wants(stream, wants)) return error;
  if (ErrorText error = write_client_private_key(stream, key)) return error;
  return write_end_of_contents(stream);
}

ErrorText write_answer(BerStream& stream) {
  server_offers offers;
  offers.version = kProtocolVersion;
  if (ErrorText error = write_server_offers(stream, offers)) return error;
  if (ErrorText error = write_server_private_key(stream, {})) return error;
  return write_end_of_contents(stream);
}

void BM_SessionInMemory(benchmark::State& state) {
  const BerStreamPtr stream = new_stream();
  for (auto _ : state) {
    memory_stream_clear(*stream);
    require(write_request(*stream));
    client_wants wants;
    client_private_key client_key;
    require(read_client_wants_incomplete(*stream, wants, 0));
    require(read_client_private_key(*stream, client_key, 0));
    require(skip_to_eol(*stream));

    require(write_answer(*stream));
    server_offers offers;
    server_private_key server_key;
    require(read_server_offers_incomplete(*stream, offers, 0));
    require(read_server_private_key(*stream, server_key, 0));
    require(skip_to_eol(*stream));

    require(write_negotiate_ack(*stream));
    require(read_negotiate_ack(*stream, 0));
  }
}
BENCHMARK(BM_SessionInMemory);

void BM_Crc32(benchmark::State& state) {
  const std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc32(
        reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(16)->Arg(65536);

// --- Probes over loopback -----------------------------------------------

std::string written_by(ErrorText (*write)(BerStream&)) {
  const BerStreamPtr stream = new_stream();
  require(write(*stream));
  return std::string(memory_stream_bytes(*stream));
}

void read_exactly(int socket, std::size_t size) {
  char buffer[256];
  while (size > 0) {
    const ssize_t count = ::read(socket, buffer, size);
    if (count <= 0) return;
    size -= static_cast<std::size_t>(count);
  }
}

void write_all(int socket, std::string_view bytes) {
  if (::write(socket, bytes.data(), bytes.size()) < 0) std::abort();
}

// The server's side of every exchange, one write and one read each way, until
// the listener is shut down.
void serve(const FileDescriptor& listener) {
  const std::string request = written_by(write_request);
  const std::string answer = written_by(write_answer);
  for (;;) {
    FileDescriptor client;
    Ipv4Address address{};
    std::uint16_t port = 0;
    if (!socket_wait_readable(listener.get(), 600) ||
        accept_connection(listener, client, address, port)) {
      return;
    }
    read_exactly(client.get(), request.size());
    write_all(client.get(), answer);
    char rest[16];
    while (::read(client.get(), rest, sizeof rest) > 0) {
    }
  }
}

void exchange_bare(std::uint16_t port, std::string_view request,
                   std::string_view answer, std::string_view ack) {
  const FileDescriptor client(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(client.get(), reinterpret_cast<sockaddr*>(&peer),
                sizeof peer) != 0) {
    std::abort();
  }
  write_all(client.get(), request);
  read_exactly(client.get(), answer.size());
  write_all(client.get(), ack);
}

double median(std::vector<double>& samples) {
  const auto middle =
      samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
  std::nth_element(samples.begin(), middle, samples.end());
  return *middle;
}

// Each round is one probe and one bare exchange, so that both see the same
// machine.
void BM_ProbeBesideBareExchange(benchmark::State& state) {
  FileDescriptor listener;
  std::uint16_t port = 0;
  require(start_socket_subsystem());
  require(listen_on({127, 0, 0, 1}, 0, listener));
  socket_local_address(listener.get(), nullptr, &port);
  std::thread server([&listener] { serve(listener); });

  const std::string request = written_by(write_request);
  const std::string answer = written_by(write_answer);
  const std::string ack = written_by(write_negotiate_ack);
  using Clock = std::chrono::steady_clock;
  using Microseconds = std::chrono::duration<double, std::micro>;
  std::vector<double> probe;
  std::vector<double> bare;
  for (auto _ : state) {
    const Clock::time_point begin = Clock::now();
    require(probe_server("127.0.0.1", port, "host1.example.org", ".", nullptr,
                         nullptr));
    const Clock::time_point middle = Clock::now();
    exchange_bare(port, request, answer, ack);
    probe.push_back(Microseconds(middle - begin).count());
    bare.push_back(Microseconds(Clock::now() - middle).count());
  }
  state.counters["probe_us"] = median(probe);
  state.counters["bare_us"] = median(bare);
  state.counters["ratio"] = median(probe) / median(bare);
  ::shutdown(listener.get(), SHUT_RDWR);
  server.join();
}
BENCHMARK(BM_ProbeBesideBareExchange)->UseRealTime();

}  // namespace
}  // namespace velprobe
