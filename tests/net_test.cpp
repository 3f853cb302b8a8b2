// Sockets, interfaces and the resolver, on loopback only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/interfaces.h"
#include "net/listener.h"
#include "net/resolver.h"
#include "net/system_socket.h"
#include "net/tcp.h"
#include "net/udp.h"

namespace velprobe {
namespace {

constexpr Ipv4Address kLoopback{127, 0, 0, 1};

std::string text_of(ErrorText error) {
  return error ? error.c_str() : "";
}

bool is_open(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

std::uint16_t port_of_socket(int socket) {
  std::uint16_t port = 0;
  EXPECT_TRUE(socket_local_address(socket, nullptr, &port));
  return port;
}

// SignalRain interrupts this thread's waits every 100 milliseconds.
struct SignalRain {
  SignalRain() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 100'000}, {0, 100'000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~SignalRain() {
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
  }
};

std::string send(const FileDescriptor& socket, std::string_view bytes) {
  return text_of(socket_send(socket.get(), bytes.data(), bytes.size()));
}

// receive gives what one read gives, or the error's text.
std::string receive(const FileDescriptor& socket) {
  char buffer[8];
  std::size_t received = 99;
  const ErrorText error = socket_recv(socket.get(), buffer, 8, received);
  return error ? error.c_str() : std::string(buffer, received);
}

// Connection is one TCP connection with both of its ends.
struct Connection : testing::Test {
  void SetUp() override {
    ASSERT_EQ("", text_of(start_socket_subsystem()));
    ASSERT_EQ("", text_of(listen_on(kLoopback, 0, listener)));
    connect(CONNECT_NONBLOCKING);
  }
  void TearDown() override { set_socket_timeout(0); }

  void connect(std::uint32_t flags) {
    std::int32_t socket;
    const std::uint16_t port = port_of_socket(listener.get());
    ASSERT_EQ("", text_of(socket_connect(kLoopback, port, socket, flags)));
    client = FileDescriptor(socket);
    Ipv4Address peer;
    std::uint16_t peer_port;
    ASSERT_EQ("",
              text_of(accept_connection(listener, server, peer, peer_port)));
    EXPECT_EQ(kLoopback, peer);
    EXPECT_EQ(port_of_socket(socket), peer_port);
  }

  FileDescriptor listener, client, server;
};

TEST_F(Connection, ReceivesUntilTheEnd) {
  ASSERT_EQ("", send(server, "abc"));
  EXPECT_EQ("abc", receive(client));
  ASSERT_EQ("", text_of(socket_close(server.release())));
  EXPECT_EQ("", receive(client));
}

TEST_F(Connection, SilenceTimesOutAlthoughSignalsRestartTheWait) {
  EXPECT_EQ(600, set_socket_timeout(1));
  const SignalRain rain;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("Timeout in socket_recv()", receive(client));
  const std::chrono::duration<double> elapsed =
      std::chrono::steady_clock::now() - start;
  EXPECT_GT(elapsed.count(), 0.9);
  EXPECT_LT(elapsed.count(), 5.0);  // the rest of a wait, not a new one
}

TEST_F(Connection, FullPeerOrASignalEndsTheSendWait) {
  set_socket_timeout(1);
  const std::string much(64 << 20, 'x');
  EXPECT_EQ("Timeout in socket_send()", send(client, much));
  const SignalRain rain;
  EXPECT_EQ("Unknown error in socket_send(): Interrupted system call",
            send(client, much));
}

TEST_F(Connection, SendsAllInOrderHoweverSlowlyThePeerReads) {
  std::string sent(16 << 20, '\0'), received;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<char>(i * i >> 7);
  }
  std::thread reader([&] {
    char piece[50'000];
    std::size_t length = 1;
    while (length > 0 && !socket_recv(server.get(), piece, 50'000, length)) {
      received.append(piece, length);
    }
  });
  EXPECT_EQ("", send(client, sent));
  client = {};
  reader.join();
  EXPECT_TRUE(sent == received);
}

TEST_F(Connection, ClosedPeerFailsTheSendAndNotTheProcess) {
  server = {};
  std::string text;
  for (int i = 0; i < 100 && text.empty(); ++i) {
    text = send(client, "x");
  }
  EXPECT_EQ("Other end closed connection", text);
}

TEST_F(Connection, CorkHoldsBytesUntilTheFlush) {
  connect(CONNECT_NONBLOCKING | CONNECT_CORK);
  ASSERT_EQ("", send(client, "x"));
  EXPECT_FALSE(socket_wait_readable(server.get(), 0));

  // The system itself gives up after 200 milliseconds; a flush is faster, at
  // least once even on a busy machine.
  bool arrived_at_once = false;
  for (int i = 0; i < 10 && !arrived_at_once; ++i) {
    ASSERT_EQ("", text_of(socket_flush(client.get())));
    arrived_at_once = socket_wait_readable(server.get(), 0);
    EXPECT_EQ("x", receive(server));
    ASSERT_EQ("", send(client, "x"));
  }
  EXPECT_TRUE(arrived_at_once);
}

TEST_F(Connection, FlagsChooseTheMode) {
  EXPECT_EQ(O_NONBLOCK, ::fcntl(client.get(), F_GETFL) & O_NONBLOCK);
  connect(CONNECT_NODELAY);
  EXPECT_EQ(0, ::fcntl(client.get(), F_GETFL) & O_NONBLOCK);
  int nodelay = 0;
  socklen_t size = sizeof nodelay;
  ::getsockopt(client.get(), IPPROTO_TCP, 1 /* TCP_NODELAY */, &nodelay, &size);
  EXPECT_EQ(1, nodelay);
}

TEST_F(Connection, RefusedConnectClosesItsSocketAndKeepsTheNumber) {
  const std::uint16_t port = port_of_socket(listener.get());
  listener = {};
  for (const std::uint32_t flags : {0u, CONNECT_NONBLOCKING}) {
    std::int32_t socket = -1;
    EXPECT_EQ("Error connecting: Connection refused",
              text_of(socket_connect(kLoopback, port, socket, flags)));
    EXPECT_GE(socket, 0);
    EXPECT_FALSE(is_open(socket));
  }
}

TEST_F(Connection, SignalEndsTheConnectWait) {
  // A full queue drops further attempts silently.
  ASSERT_EQ(0, ::listen(listener.get(), 0));
  const sockaddr_in address =
      to_sockaddr(kLoopback, port_of_socket(listener.get()));
  std::vector<FileDescriptor> fillers;
  for (int i = 0; i < 4; ++i) {
    fillers.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    ::connect(fillers.back().get(), as_sockaddr(&address), sizeof address);
  }
  const SignalRain rain;
  std::int32_t socket;
  EXPECT_EQ("Error waiting for connect: Interrupted system call",
            text_of(socket_connect(kLoopback, port_of(address), socket,
                                   CONNECT_NONBLOCKING)));
  EXPECT_FALSE(is_open(socket));
}

TEST_F(Connection, DescriptorsBeyondTheWaitSetAreErrors) {
  const rlimit limit{2048, 2048};
  if (::setrlimit(RLIMIT_NOFILE, &limit) < 0) GTEST_SKIP();
  EXPECT_EQ(
      "Unknown error in socket_recv(): Too many open files",
      receive(FileDescriptor(::fcntl(client.get(), F_DUPFD, FD_SETSIZE))));
}

// Datagrams.

struct Datagrams : testing::Test {
  Datagrams() {
    EXPECT_TRUE(udp_open(a));
    EXPECT_TRUE(udp_open(b));
    EXPECT_TRUE(udp_bind(b, kLoopback, 0));
  }
  ~Datagrams() override {
    udp_close(a);
    EXPECT_TRUE(udp_close(b));
    EXPECT_FALSE(is_open(b));
  }
  std::int32_t a, b;
};

TEST_F(Datagrams, OneIsReceivedCutWithItsSender) {
  ASSERT_EQ("",
            text_of(udp_send(a, kLoopback, port_of_socket(b), "abcdef", 6)));
  ASSERT_TRUE(socket_wait_readable(b, 5));
  char buffer[4];
  ssize_t length = sizeof buffer;
  Ipv4Address sender{};
  std::uint16_t port = 0;
  ASSERT_EQ("", text_of(udp_receive(b, sender, port, buffer, length)));
  EXPECT_EQ("abcd", std::string(buffer, static_cast<std::size_t>(length)));
  EXPECT_EQ(kLoopback, sender);
  EXPECT_EQ(port_of_socket(a), port);
}

TEST_F(Datagrams, FailuresHaveTextsOfTheirOwn) {
  const Ipv4Address everyone{127, 255, 255, 255};
  const ErrorText sent = udp_send(a, everyone, 9, "", 0);
  ssize_t length = 0;
  Ipv4Address sender;
  std::uint16_t port;
  EXPECT_EQ("UDP receive failed (9).",
            text_of(udp_receive(-1, sender, port, &length, length)));
  EXPECT_EQ(-1, length);
  EXPECT_EQ("UDP send failed (Permission denied)", text_of(sent));

  const ip_mreq none{};
  EXPECT_EQ("UDP set allow broadcast failed",
            text_of(udp_set_broadcast(-1, true)));
  EXPECT_EQ("UDP set multicast no loop mode failed.",
            text_of(udp_set_multicast(-1, none, true)));
  EXPECT_EQ("UDP set multicast membership failed.",
            text_of(udp_set_multicast(a, none, true)));
  EXPECT_EQ("UDP unset multicast membership failed.",
            text_of(udp_set_multicast(a, none, false)));
}

TEST_F(Datagrams, BroadcastIsAlwaysEnabledAndHandleZeroNeverClosed) {
  ASSERT_EQ("", text_of(udp_set_broadcast(a, false)));
  int enabled = 0;
  socklen_t size = sizeof enabled;
  ::getsockopt(a, SOL_SOCKET, SO_BROADCAST, &enabled, &size);
  EXPECT_EQ(1, enabled);
  EXPECT_FALSE(udp_close(0));
}

// Interfaces.

std::string nic_list() {
  std::string list;
  const std::unique_ptr<NicInfo[]> nics = list_nics();
  for (const NicInfo* nic = nics.get(); nic && nic->name[0] != '\0'; ++nic) {
    list += std::string(nic->name) + " " +
            address_text(address_of(nic->address)) + "\n";
    EXPECT_NE(0u, nic->broadcast.sin_addr.s_addr);
    EXPECT_NE(0u, nic->mtu);
  }
  return list;
}

constexpr int kNotAllowed = 77;

// With a network of its own the child may give loopback further addresses: more
// than the system's first answer has room for.
int list_many() {
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) < 0) return kNotAllowed;
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  std::string expected;
  ifreq request{};
  for (std::uint8_t i = 0; i < 9; ++i) {
    const sockaddr_in address = to_sockaddr({127, 1, 1, i}, 0);
    std::snprintf(request.ifr_name, IFNAMSIZ, "lo:%d", i);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    if (::ioctl(socket.get(), SIOCSIFADDR, &request) < 0) return kNotAllowed;
    expected +=
        std::string(request.ifr_name) + " 127.1.1." + std::to_string(i) + "\n";
  }
  expected += "lo 127.0.0.1\n";  // comes with the start of the interface
  const bool none_is_up = nic_list().empty();
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  ::ioctl(socket.get(), SIOCSIFFLAGS, &request);
  fprintf(stderr, "%d %s", none_is_up, nic_list().c_str());
  return none_is_up && nic_list() == expected ? 0 : 1;
}

TEST(Interfaces, AllThatAreUpAreListed) {
  EXPECT_NE(std::string::npos, nic_list().find("lo 127.0.0.1\n"));
  const pid_t child = ::fork();
  if (child == 0) ::_exit(list_many());
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  if (WEXITSTATUS(status) == kNotAllowed) GTEST_SKIP() << "no network alone";
  EXPECT_EQ(0, status);
}

TEST(Interfaces, BroadcastIsComputedFromTheMask) {
  struct {
    Ipv4Address address, netmask, broadcast;
  } const rows[] = {
      {{10, 1, 2, 3}, {255, 255, 0, 0}, {10, 1, 255, 255}},
      {{10, 1, 2, 3}, {0, 0, 0, 0}, {255, 255, 255, 255}},
      {{10, 1, 2, 3}, {255, 255, 255, 255}, {10, 1, 2, 3}},
      {{192, 0, 2, 65}, {255, 255, 255, 192}, {192, 0, 2, 127}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.broadcast, directed_broadcast(row.address, row.netmask));
  }
}

TEST(Interfaces, NamesEndWithTheSystemsField) {
  char unended[IFNAMSIZ];
  std::memset(unended, 'x', sizeof unended);
  NicInfo nic{};
  set_nic_name(nic, unended, 3);
  EXPECT_EQ(std::string(IFNAMSIZ, 'x'), nic.name);
  const char unnamed[IFNAMSIZ] = "";
  set_nic_name(nic, unnamed, 3);
  EXPECT_STREQ("no name(3)", nic.name);
}

// Resolver.

TEST(Resolver, FailuresAreNamedAndNamesAreData) {
  struct {
    int code;
    std::string text;
  } const rows[] = {
      {HOST_NOT_FOUND, "Host name not found"},
      {TRY_AGAIN, "Temporary error from name server"},
      {NO_RECOVERY, "Unrecoverable error from name server"},
      {NO_DATA, "Name server returned no address"},
      {0, "Unknown error: 0"},
      {5, "Unknown error: 5"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ("Error resolving \"%s%n\": " + row.text,
              text_of(resolver_failure("%s%n", row.code)));
  }
}

TEST(Resolver, DottedDecimalIsItselfAndFailureTouchesNothing) {
  Ipv4Address address{};
  ASSERT_EQ("", text_of(resolve_host("192.0.2.7", address)));
  EXPECT_STREQ("192.0.2.7", address_text(address));
  EXPECT_NE("", text_of(resolve_host("192.0.2.256", address)));
  EXPECT_STREQ("192.0.2.7", address_text(address));
  EXPECT_STREQ("255.0.10.255", address_text({255, 0, 10, 255}));
  EXPECT_FALSE(reverse_resolve(kLoopback, nullptr));
}

}  // namespace
}  // namespace velprobe
