// Sockets, interfaces and the resolver, on loopback only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/interfaces.h"
#include "net/listener.h"
#include "net/resolver.h"
#include "net/system_socket.h"
#include "net/tcp.h"
#include "net/udp.h"
#include "net/wait.h"

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
    ASSERT_EQ("",
              text_of(socket_connect(kLoopback, port_of_socket(listener.get()),
                                     socket, flags)));
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
  char buffer[8];
  std::size_t received = 99;
  ASSERT_EQ("", text_of(socket_send(server.get(), "abc", 3)));
  ASSERT_EQ("", text_of(socket_recv(client.get(), buffer, 8, received)));
  EXPECT_EQ("abc", std::string(buffer, received));
  ASSERT_EQ("", text_of(socket_close(server.release())));
  ASSERT_EQ("", text_of(socket_recv(client.get(), buffer, 8, received)));
  EXPECT_EQ(0u, received);
}

TEST_F(Connection, SilenceTimesOutAlthoughSignalsRestartTheWait) {
  EXPECT_EQ(600, set_socket_timeout(1));
  const SignalRain rain;
  const auto start = std::chrono::steady_clock::now();
  char byte;
  std::size_t received;
  EXPECT_EQ("Timeout in socket_recv()",
            text_of(socket_recv(client.get(), &byte, 1, received)));
  const std::chrono::duration<double> elapsed =
      std::chrono::steady_clock::now() - start;
  EXPECT_GT(elapsed.count(), 0.9);
  EXPECT_LT(elapsed.count(), 5.0);  // the rest of a wait, not a new one
}

TEST_F(Connection, SignalEndsTheSendWait) {
  const std::vector<char> much(64 << 20);
  const SignalRain rain;
  EXPECT_EQ("Unknown error in socket_send(): Interrupted system call",
            text_of(socket_send(client.get(), much.data(), much.size())));
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
  EXPECT_EQ("", text_of(socket_send(client.get(), sent.data(), sent.size())));
  client = {};
  reader.join();
  EXPECT_TRUE(sent == received);
}

TEST_F(Connection, FullPeerTimesOutTheSend) {
  set_socket_timeout(1);
  const std::vector<char> much(64 << 20);
  EXPECT_EQ("Timeout in socket_send()",
            text_of(socket_send(client.get(), much.data(), much.size())));
}

TEST_F(Connection, ClosedPeerFailsTheSendAndNotTheProcess) {
  server = {};
  std::string text;
  for (int i = 0; i < 100 && text.empty(); ++i) {
    text = text_of(socket_send(client.get(), "x", 1));
  }
  EXPECT_EQ("Other end closed connection", text);
}

TEST_F(Connection, CorkHoldsBytesUntilTheFlush) {
  connect(CONNECT_NONBLOCKING | CONNECT_CORK);
  ASSERT_EQ("", text_of(socket_send(client.get(), "x", 1)));
  EXPECT_FALSE(socket_wait_readable(server.get(), 0));

  // The system itself gives up after 200 milliseconds; a flush is faster, at
  // least once even on a busy machine.
  bool arrived_at_once = false;
  for (int i = 0; i < 10 && !arrived_at_once; ++i) {
    ASSERT_EQ("", text_of(socket_flush(client.get())));
    arrived_at_once = socket_wait_readable(server.get(), 0);
    char bytes[2];
    std::size_t received;
    ASSERT_EQ("", text_of(socket_recv(server.get(), bytes, 2, received)));
    ASSERT_EQ("", text_of(socket_send(client.get(), "x", 1)));
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

TEST_F(Connection, WaitForAnyNamesTheReadyOne) {
  ASSERT_EQ("", text_of(socket_send(client.get(), "x", 1)));
  const std::int32_t sockets[] = {listener.get(), client.get(), server.get()};
  std::size_t first = 99;
  EXPECT_EQ(WaitResult::kReady, wait_for_any(sockets, WaitFor::kReadable, 5,
                                             OnSignal::kRestart, first));
  EXPECT_EQ(2u, first);
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
  std::vector<FileDescriptor> fillers;
  do {
    fillers.emplace_back(::dup(client.get()));
    ASSERT_TRUE(fillers.back());
  } while (fillers.back().get() < FD_SETSIZE);
  const std::int32_t high = fillers.back().get();

  std::int32_t socket;
  EXPECT_EQ("Error creating socket: Too many open files",
            text_of(socket_connect(kLoopback, 1, socket, 0)));
  EXPECT_FALSE(udp_open(socket));
  EXPECT_EQ(-1, socket);
  EXPECT_FALSE(is_open(high + 1));
  char byte;
  std::size_t received;
  EXPECT_EQ("Unknown error in socket_recv(): Too many open files",
            text_of(socket_recv(high, &byte, 1, received)));
}

// Datagrams.

struct Datagrams : testing::Test {
  void SetUp() override {
    std::int32_t socket;
    ASSERT_TRUE(udp_open(socket));
    a = FileDescriptor(socket);
    ASSERT_TRUE(udp_open(socket));
    b = FileDescriptor(socket);
    ASSERT_TRUE(udp_bind(b.get(), kLoopback, 0));
  }
  FileDescriptor a, b;
};

TEST_F(Datagrams, OneIsReceivedCutWithItsSender) {
  ASSERT_EQ("", text_of(udp_send(a.get(), kLoopback, port_of_socket(b.get()),
                                 "abcdef", 6)));
  ASSERT_TRUE(socket_wait_readable(b.get(), 5));
  char buffer[4];
  ssize_t length = sizeof buffer;
  Ipv4Address sender{};
  std::uint16_t port = 0;
  ASSERT_EQ("", text_of(udp_receive(b.get(), sender, port, buffer, length)));
  EXPECT_EQ("abcd", std::string(buffer, static_cast<std::size_t>(length)));
  EXPECT_EQ(kLoopback, sender);
  EXPECT_EQ(port_of_socket(a.get()), port);
}

TEST_F(Datagrams, FailuresHaveTextsOfTheirOwn) {
  const Ipv4Address everyone{127, 255, 255, 255};
  const ErrorText sent = udp_send(a.get(), everyone, 9, "", 0);
  ssize_t length = 0;
  Ipv4Address sender;
  std::uint16_t port;
  char byte;
  const ErrorText received = udp_receive(-1, sender, port, &byte, length);
  EXPECT_EQ("UDP send failed (Permission denied)", text_of(sent));
  EXPECT_EQ("UDP receive failed (9).", text_of(received));
  EXPECT_EQ(-1, length);

  const ip_mreq none{};
  EXPECT_EQ("UDP set allow broadcast failed",
            text_of(udp_set_broadcast(-1, true)));
  EXPECT_EQ("UDP set multicast no loop mode failed.",
            text_of(udp_set_multicast(-1, none, true)));
  EXPECT_EQ("UDP set multicast membership failed.",
            text_of(udp_set_multicast(a.get(), none, true)));
  EXPECT_EQ("UDP unset multicast membership failed.",
            text_of(udp_set_multicast(a.get(), none, false)));
}

TEST_F(Datagrams, BroadcastIsAlwaysEnabledAndHandleZeroNeverClosed) {
  ASSERT_EQ("", text_of(udp_set_broadcast(a.get(), false)));
  int enabled = 0;
  socklen_t size = sizeof enabled;
  ::getsockopt(a.get(), SOL_SOCKET, SO_BROADCAST, &enabled, &size);
  EXPECT_EQ(1, enabled);
  EXPECT_FALSE(udp_close(0));
  const int handle = a.release();
  EXPECT_TRUE(udp_close(handle));
  EXPECT_FALSE(is_open(handle));
}

// Interfaces.

TEST(Interfaces, AreThoseThatTheSystemListsElsewhere) {
  std::vector<std::string> expected, listed;
  ifaddrs* all = nullptr;
  ASSERT_EQ(0, ::getifaddrs(&all));
  for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
    if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET ||
        !(each->ifa_flags & IFF_UP)) {
      continue;
    }
    sockaddr_in address;
    std::memcpy(&address, each->ifa_addr, sizeof address);
    expected.push_back(std::string(each->ifa_name) + " " +
                       address_text(address_of(address)));
  }
  ::freeifaddrs(all);

  const std::unique_ptr<NicInfo[]> nics = list_nics();
  ASSERT_TRUE(nics);
  for (const NicInfo* nic = nics.get(); nic->name[0] != '\0'; ++nic) {
    listed.push_back(std::string(nic->name) + " " +
                     address_text(address_of(nic->address)));
    EXPECT_NE(0u, nic->broadcast.sin_addr.s_addr);
    EXPECT_NE(0u, nic->mtu);
  }
  EXPECT_EQ(expected, listed);
}

// With a network of its own the child may give loopback further addresses.
TEST(Interfaces, MoreThanTheFirstAnswerHoldsAreAllListed) {
  constexpr int kNumAliases = 9, kNotAllowed = 77;
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) < 0) ::_exit(kNotAllowed);
    const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
    int num_added = 0;
    for (std::uint8_t i = 0; i < kNumAliases; ++i) {
      ifreq request{};
      std::snprintf(request.ifr_name, IFNAMSIZ, "lo:%d", i);
      const sockaddr_in address = to_sockaddr({127, 1, 1, i}, 0);
      std::memcpy(&request.ifr_addr, &address, sizeof address);
      num_added += ::ioctl(socket.get(), SIOCSIFADDR, &request) == 0;
      request = {};
      std::strcpy(request.ifr_name, "lo");
      request.ifr_flags = IFF_UP;
      ::ioctl(socket.get(), SIOCSIFFLAGS, &request);
    }
    std::size_t num_listed = 0;
    const std::unique_ptr<NicInfo[]> nics = list_nics();
    while (nics && nics[num_listed].name[0] != '\0') ++num_listed;
    ::_exit(num_added == kNumAliases ? static_cast<int>(num_listed)
                                     : kNotAllowed);
  }
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  if (WEXITSTATUS(status) == kNotAllowed) GTEST_SKIP();
  EXPECT_EQ(kNumAliases + 1, WEXITSTATUS(status));
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
  // What lies behind the field must never be read as part of the name.
  struct {
    char name[IFNAMSIZ];
    char behind[sizeof(ifreq)];
  } entry;
  std::memset(&entry, 'x', sizeof entry);
  NicInfo nic{};
  set_nic_name(nic, entry.name, 3);
  EXPECT_EQ(std::string(IFNAMSIZ, 'x'), nic.name);
  entry.name[0] = '\0';
  set_nic_name(nic, entry.name, 3);
  EXPECT_STREQ("no name(3)", nic.name);
}

// Resolver.

TEST(Resolver, FailuresAreNamedAndNamesAreData) {
  struct {
    int code;
    const char* text;
  } const rows[] = {
      {HOST_NOT_FOUND, "Error resolving \"%s%n\": Host name not found"},
      {TRY_AGAIN, "Error resolving \"%s%n\": Temporary error from name server"},
      {NO_RECOVERY,
       "Error resolving \"%s%n\": Unrecoverable error from name server"},
      {NO_DATA, "Error resolving \"%s%n\": Name server returned no address"},
      {0, "Error resolving \"%s%n\": Unknown error: 0"},
      {-1, "Error resolving \"%s%n\": Unknown error: -1"},
      {5, "Error resolving \"%s%n\": Unknown error: 5"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.text, text_of(resolver_failure("%s%n", row.code)));
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
