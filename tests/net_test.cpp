// Sockets, interfaces and the resolver, on loopback only.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
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
#include "support/temp_folder.h"

namespace velprobe {
namespace {

using std::string_literals::operator""s;

constexpr Ipv4Address kLoopback{127, 0, 0, 1};

// The waits of this thread: how long each was to last in seconds, and how those
// that do not really take place are to end (0: its time has passed).
thread_local std::vector<double> waits;
thread_local std::vector<int> ends_of_waits;

extern "C" int wait_of_test(pollfd*, nfds_t, const timespec*,
                            const sigset_t*) asm("ppoll");
int wait_of_test(pollfd* entries, nfds_t count, const timespec* limit,
                 const sigset_t*) {
  timespec left = *limit;
  waits.push_back(static_cast<double>(left.tv_sec) +
                  static_cast<double>(left.tv_nsec) / 1e9);
  if (waits.size() > ends_of_waits.size()) {
    return static_cast<int>(
        ::syscall(SYS_ppoll, entries, count, &left, nullptr, 0));
  }
  errno = ends_of_waits[waits.size() - 1];
  return errno == 0 ? 0 : -1;
}

void script_waits(std::vector<int> ends) {
  waits.clear();
  ends_of_waits = std::move(ends);
}

static_assert(CONNECT_NONBLOCKING == 1 && CONNECT_NODELAY == 2 &&
              CONNECT_CORK == 4);

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
  void TearDown() override {
    set_socket_timeout(0);
    script_waits({});
  }

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

// How long each wait was to last: the limit, then what is left of it.
TEST_F(Connection, WaitsOnceForTheLimitAndGoesOnAfterASignalOnlyToReceive) {
  using Call = std::function<std::string()>;
  const std::string full(64 << 20, 'x');
  const auto connect_until = [&](Deadline deadline) {
    std::int32_t socket;
    return text_of(socket_connect(kLoopback, port_of_socket(listener.get()),
                                  socket, CONNECT_NONBLOCKING, deadline));
  };
  const Call receives = [&] { return receive(client); };
  const Call sends = [&] { return send(client, full); };
  const Call connects = [&] { return connect_until(kNoDeadline); };
  const Call connects_soon = [&] {
    return connect_until(std::chrono::steady_clock::now() +
                         std::chrono::seconds(7));
  };
  const struct {
    const Call& call;
    int limit;
    std::vector<int> ends;
    const char* text;
    int expected;
  } rows[] = {
      {receives, 0, {0}, "Timeout in socket_recv()", 600},
      {receives, 30, {EINTR, EINTR, 0}, "Timeout in socket_recv()", 30},
      {receives, 0, {ENOMEM}, "Unknown error in socket_recv(): ", 600},
      {sends, 0, {0}, "Timeout in socket_send()", 600},
      {sends, 30, {EINTR}, "Unknown error in socket_send(): ", 30},
      {connects, 30, {0}, "Connection timed out", 600},
      {connects, 30, {EINTR}, "Error waiting for connect: ", 600},
      {connects_soon, 30, {0}, "Connection timed out", 7},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    set_socket_timeout(row.limit);
    std::thread([] { EXPECT_EQ(600, set_socket_timeout(5)); }).join();
    script_waits(row.ends);
    const std::string text = row.call();
    const bool failed = row.ends.back() != 0;
    EXPECT_EQ(row.text + (failed ? std::strerror(row.ends.back()) : ""s), text);
    ASSERT_EQ(row.ends.size(), waits.size());
    EXPECT_TRUE(std::is_sorted(waits.rbegin(), waits.rend()));
    EXPECT_LE(waits.front(), row.expected);
    EXPECT_GT(waits.back(), row.expected - 2);
  }
}

TEST_F(Connection, APeerThatLeftIsAnErrorAndNoSignal) {
  server = {};
  std::string error;
  for (int i = 0; i < 100 && error.empty(); ++i) error = send(client, "x");
  EXPECT_EQ("Other end closed connection", error);
}

TEST_F(Connection, ADeadlineLongPastLeavesNoWait) {
  for (const Deadline past : {Deadline{}, Deadline::min()}) {
    script_waits({0});
    EXPECT_FALSE(socket_wait_readable(client.get(), 5, past));
    EXPECT_EQ(std::vector<double>{0}, waits);
  }
}

TEST_F(Connection, ACloseWithADeadlineWaitsForNobody) {
  const linger minutes = {1, 120};
  ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &minutes, sizeof minutes);
  const std::string much(64 << 20, 'x');
  script_waits({0});
  EXPECT_EQ("Timeout in socket_send()", send(client, much));
  EXPECT_EQ("", text_of(socket_close(client.release(), Deadline{})));
}

TEST_F(Connection, SendsAllInOrderHoweverSlowlyThePeerReads) {
  std::string sent(16 << 20, '\0'), received;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<char>(i * i >> 7);
  }
  std::thread reader([&] {
    for (std::string piece; !(piece = receive(server)).empty();) {
      received += piece;
    }
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
  if (::setrlimit(RLIMIT_NOFILE, &limit) < 0) {
    GTEST_SKIP() << "no more descriptors: " << std::strerror(errno);
  }
  std::vector<FileDescriptor> fillers;
  while (fillers.empty() || fillers.back().get() < FD_SETSIZE) {
    fillers.emplace_back(::dup(client.get()));
  }
  EXPECT_FALSE(socket_wait_readable(fillers.back().get(), 0));
  EXPECT_EQ("", send(server, "x"));
  EXPECT_TRUE(socket_wait_readable(fillers.back().get(), 1));
  for (const int closed : {-1, 2000}) {
    EXPECT_FALSE(socket_wait_readable(closed, 1));
  }
}

TEST_F(Connection, DescriptorZeroIsOneLikeAnyOther) {
  const FileDescriptor kept(::dup(0));
  {
    const FileDescriptor zero(::dup2(client.get(), 0));
    EXPECT_TRUE(zero);
    EXPECT_EQ("", send(server, "x"));
    EXPECT_TRUE(socket_wait_readable(0, 1));
    EXPECT_EQ("x", receive(zero));
  }
  EXPECT_LT(::fcntl(0, F_GETFD), 0) << "left open";
  ::dup2(kept.get(), 0);
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
            address_text(address_of(nic->address)) + " ";
    list += address_text(address_of(nic->broadcast)) + std::string("\n");
    EXPECT_NE(0u, nic->mtu);
  }
  return list;
}

// Gives the loopback interface a further address.
void add_address(const Ipv4Address& address, std::uint8_t num_mask_bits) {
  struct {
    nlmsghdr header;
    ifaddrmsg message;
    rtattr attribute;
    Ipv4Address address;
  } const request = {
      {sizeof request, RTM_NEWADDR, NLM_F_REQUEST | NLM_F_CREATE, 0, 0},
      {AF_INET, num_mask_bits, 0, RT_SCOPE_HOST, 1},
      {sizeof(rtattr) + sizeof address, IFA_LOCAL},
      address};
  const FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
  EXPECT_GT(::send(socket.get(), &request, sizeof request, 0), 0);
}

// With a network of its own the process may give one interface many addresses:
// more than the system's first answer holds.
TEST(Interfaces, EveryAddressIsListedWithTheBroadcastOfItsOwnNetwork) {
  constexpr const char* kLoopbackLine = "lo 127.0.0.1 127.255.255.255\n";
  EXPECT_NE(std::string::npos, nic_list().find(kLoopbackLine));
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) < 0) {
    GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
  }
  add_address({10, 2, 2, 3}, 24);
  add_address({10, 9, 0, 1}, 16);
  add_address({10, 77, 1, 1}, 12);
  add_address({10, 2, 2, 77}, 32);
  EXPECT_EQ("", nic_list()) << "none is up";
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  ASSERT_EQ(0, ::ioctl(socket.get(), SIOCSIFFLAGS, &request));
  EXPECT_EQ(std::string("lo 10.2.2.3 10.2.2.255\n"
                        "lo 10.9.0.1 10.9.255.255\n"
                        "lo 10.77.1.1 10.79.255.255\n"
                        "lo 10.2.2.77 10.2.2.77\n") +
                kLoopbackLine,
            nic_list());
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

// In a namespace of its own the process has its own hosts file, with more
// addresses of one name than a first answer holds.
TEST(Resolver, GivesAllAddressesOfANameInTheirOrder) {
  TempFolder etc;
  etc.write("nsswitch.conf", "hosts: files\n");
  etc.write("host.conf", "multi on\n");
  std::string hosts = "192.0.2.1 first.example alias.example\n";
  for (int i = 0; i < 200; ++i) {
    hosts += "10.0.0." + std::to_string(i) + " many.example\n";
  }
  etc.write("hosts", hosts);
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) < 0 ||
      ::mount(etc.path("").c_str(), "/etc", nullptr, MS_BIND, nullptr) < 0) {
    GTEST_SKIP() << "no mount namespace: " << std::strerror(errno);
  }

  std::vector<Ipv4Address> addresses(300);
  std::size_t count = 0;
  EXPECT_EQ("", text_of(resolve_host_all("many.example", addresses, count)));
  ASSERT_EQ(200u, count);
  for (std::uint8_t i = 0; i < count; ++i) {
    EXPECT_EQ((Ipv4Address{10, 0, 0, i}), addresses[i]);
  }
  EXPECT_FALSE(resolve_host_all("many.example", {&addresses[7], 2}, count));
  EXPECT_EQ(2u, count);
  EXPECT_EQ((Ipv4Address{10, 0, 0, 1}), addresses[8]);
  EXPECT_EQ((Ipv4Address{10, 0, 0, 9}), addresses[9]);
  EXPECT_EQ("", text_of(resolve_host("alias.example", addresses[0])));
  EXPECT_STREQ("192.0.2.1", address_text(addresses[0]));
  const char* name = nullptr;
  EXPECT_TRUE(reverse_resolve(addresses[0], &name));
  EXPECT_STREQ("first.example", name);
  EXPECT_EQ("Error resolving \"no.example\": Host name not found",
            text_of(resolve_host_all("no.example", addresses, count)));
  EXPECT_EQ(2u, count);
}

}  // namespace
}  // namespace velprobe
