// Sockets, interfaces and the resolver, on loopback only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/interface_name.h"
#include "net/interfaces.h"
#include "net/listener.h"
#include "net/resolver.h"
#include "net/resolver_failure.h"
#include "net/system_socket.h"
#include "net/tcp.h"
#include "net/udp.h"
#include "support/streams.h"

namespace velprobe {
namespace {

constexpr Ipv4Address kLoopback{127, 0, 0, 1};

int option_of(int socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  ::getsockopt(socket, level, option, &value, &size);
  return value;
}

std::uint16_t port_of_socket(int socket) {
  std::uint16_t port = 0;
  EXPECT_TRUE(socket_local_address(socket, nullptr, &port));
  return port;
}

std::string send(const FileDescriptor& socket, std::string_view bytes) {
  return text_of(socket_send(socket.get(), bytes.data(), bytes.size()));
}

// receive gives what one read gives, or the error's text.
std::string receive(const FileDescriptor& socket) {
  std::string buffer(50'000, '\0');
  std::size_t received = 0;
  const ErrorText error =
      socket_recv(socket.get(), buffer.data(), buffer.size(), received);
  return error ? error.c_str() : buffer.substr(0, received);
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
    ASSERT_FALSE(accept_connection(listener, server, peer, peer_port));
    EXPECT_EQ(kLoopback, peer);
    EXPECT_EQ(port_of_socket(socket), peer_port);
  }

  FileDescriptor listener, client, server;
};

TEST_F(Connection, FullPeerOrASignalEndsTheSendWait) {
  EXPECT_EQ(600, set_socket_timeout(1));
  const std::string much(64 << 20, 'x');
  EXPECT_EQ("Timeout in socket_send()", send(client, much));
  std::signal(SIGALRM, [](int) {});
  ::ualarm(100'000, 0);
  EXPECT_EQ("Unknown error in socket_send(): Interrupted system call",
            send(client, much));
}

TEST_F(Connection, APeerThatLeftIsAnErrorAndNoSignal) {
  server = {};
  std::string error;
  for (int i = 0; i < 100 && error.empty(); ++i) error = send(client, "x");
  EXPECT_EQ("Other end closed connection", error);
}

TEST_F(Connection, SendsAllInOrderHoweverSlowlyThePeerReads) {
  std::string sent(16 << 20, '\0'), received;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<char>(i * i >> 7);
  }
  std::thread reader([&] {
    for (std::string piece; !(piece = receive(server)).empty();)
      received += piece;
  });
  EXPECT_EQ("", send(client, sent));
  client = {};
  reader.join();
  EXPECT_TRUE(sent == received);
}

TEST_F(Connection, FlagsChooseTheMode) {
  EXPECT_EQ(O_NONBLOCK, ::fcntl(client.get(), F_GETFL) & O_NONBLOCK);
  connect(CONNECT_NODELAY);
  EXPECT_EQ(0, ::fcntl(client.get(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(1, option_of(client.get(), IPPROTO_TCP, TCP_NODELAY));
}

TEST_F(Connection, RefusedConnectKeepsTheNumber) {
  const std::uint16_t port = port_of_socket(listener.get());
  listener = {};
  std::int32_t socket = -1;
  EXPECT_EQ("Error connecting: Connection refused",
            text_of(socket_connect(kLoopback, port, socket, 0)));
  EXPECT_GE(socket, 0);
}

TEST_F(Connection, DescriptorsBeyondASelectsSetAreWaitedOn) {
  const rlimit limit{2048, 2048};
  if (::setrlimit(RLIMIT_NOFILE, &limit) < 0)
    GTEST_SKIP() << "no more descriptors: " << std::strerror(errno);
  std::vector<FileDescriptor> fillers;
  while (fillers.empty() || fillers.back().get() < FD_SETSIZE) {
    fillers.emplace_back(::dup(client.get()));
  }
  set_socket_timeout(1);
  EXPECT_EQ("Timeout in socket_recv()", receive(fillers.back()));
  EXPECT_EQ("", send(server, "x"));
  EXPECT_TRUE(socket_wait_readable(fillers.back().get(), 1));
  EXPECT_FALSE(socket_wait_readable(-1, 1));
}

TEST(Datagrams, BroadcastIsAlwaysEnabledAndHandleZeroNeverClosed) {
  std::int32_t socket = -1;
  ASSERT_TRUE(udp_open(socket));
  ASSERT_EQ("", text_of(udp_set_broadcast(socket, false)));
  EXPECT_EQ(1, option_of(socket, SOL_SOCKET, SO_BROADCAST));
  EXPECT_EQ("UDP set multicast membership failed.",
            text_of(udp_set_multicast(socket, {}, true)));
  EXPECT_EQ("UDP unset multicast membership failed.",
            text_of(udp_set_multicast(socket, {}, false)));
  EXPECT_TRUE(udp_close(socket));
  EXPECT_LT(::fcntl(socket, F_GETFD), 0) << "left open";
  EXPECT_FALSE(udp_close(0));
  ssize_t length = 0;
  Ipv4Address sender;
  std::uint16_t port;
  EXPECT_EQ("UDP receive failed (9).",
            text_of(udp_receive(-1, sender, port, &length, length)));
}

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

// With a network of its own the process may give loopback further addresses:
// more than the system's first answer has room for.
TEST(Interfaces, AllThatAreUpAreListed) {
  EXPECT_NE(std::string::npos, nic_list().find("lo 127.0.0.1\n"));
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) < 0)
    GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  std::string expected;
  ifreq request{};
  for (std::uint8_t i = 0; i < 9; ++i) {
    const sockaddr_in address = to_sockaddr({127, 1, 1, i}, 0);
    std::snprintf(request.ifr_name, IFNAMSIZ, "lo:%d", i);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    ASSERT_EQ(0, ::ioctl(socket.get(), SIOCSIFADDR, &request));
    expected +=
        std::string(request.ifr_name) + " 127.1.1." + std::to_string(i) + "\n";
  }
  expected += "lo 127.0.0.1\n";  // comes with the start of the interface
  EXPECT_EQ("", nic_list()) << "none is up";
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  ASSERT_EQ(0, ::ioctl(socket.get(), SIOCSIFFLAGS, &request));
  EXPECT_EQ(expected, nic_list());
}

TEST(Interfaces, BroadcastIsComputedFromTheMask) {
  const Ipv4Address broadcast{172, 31, 255, 255};
  EXPECT_EQ(broadcast, directed_broadcast({172, 17, 2, 3}, {255, 240, 0, 0}));
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

TEST(Resolver, FailuresAreNamedAndTouchNothing) {
  EXPECT_EQ("Error resolving \"%s%n\": Name server returned no address",
            text_of(resolver_failure("%s%n", NO_DATA)));
  EXPECT_EQ("Error resolving \"x\": Unknown error: 5",
            text_of(resolver_failure("x", 5)));
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
