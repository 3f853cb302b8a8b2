// The discovery datagram, and the scan against servers on loopback.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "net/resolver.h"
#include "net/system_socket.h"
#include "net/tcp.h"
#include "net/udp.h"
#include "probe/address_set.h"
#include "probe/discovery_datagram.h"
#include "probe/discovery_scan.h"
#include "util/owners.h"

namespace velprobe {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kQuery{0x12, 0x34, 0x56, 0x78, 0x00, 0x00, 0x14, 0x54, 0x00, 0x00,
                   0x00, 0x05, 0x00, 0x00, 0x00, 0x01, 0x4A, 0xC5, 0x35, 0xD6};

Bytes contents_of(const DiscoveryDatagram& datagram) {
  return {datagram.begin(), datagram.end()};
}

const Bytes kAnswer = contents_of(build_discovery_answer());
constexpr Ipv4Address kLoopback{127, 0, 0, 1};

// Which datagrams are taken for what: the query with byte `at` set, then cut or
// filled up.
TEST(DiscoveryDatagram, AnswersNeedMagicWordAndKindButQueriesEverything) {
  const struct {
    std::size_t at;
    std::uint8_t value;
    std::size_t length;
    bool is_answer, is_query;
  } rows[] = {
      {15, 1, 20, false, true},     {15, 1, 19, false, false},
      {15, 1, 21, false, false},    {15, 2, 20, true, false},
      {15, 2, 16, true, false},  // no checksum at all
      {15, 2, 15, false, false},    {15, 2, 4096, true, false},
      {19, 0xD7, 20, false, false}, {16, 0, 20, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("byte " + std::to_string(row.at) + " is " +
                 std::to_string(row.value) + " of " +
                 std::to_string(row.length));
    Bytes bytes = kQuery;
    bytes[row.at] = row.value;
    bytes.resize(row.length);
    EXPECT_EQ(row.is_answer, is_discovery_answer(bytes.data(), bytes.size()));
    EXPECT_EQ(row.is_query, is_discovery_query(bytes.data(), bytes.size()));
  }
  EXPECT_EQ(kQuery, contents_of(build_discovery_query()));
  // Every byte of an answer but word 1 and the checksum counts.
  for (std::size_t i = 0; i < kAnswer.size(); ++i) {
    Bytes bytes = kAnswer;
    bytes[i] ^= 0x80;
    EXPECT_EQ((i >= 4 && i < 8) || i >= 16,
              is_discovery_answer(bytes.data(), bytes.size()))
        << i;
  }
}

TEST(AddressSet, HoldsWhatAPlainSetHolds) {
  AddressSet addresses;
  std::set<Ipv4Address> plain;
  std::mt19937 random(20261121);
  for (int i = 0; i < 20000; ++i) {
    // Few networks of neighbours, so that places collide and hosts come twice.
    Ipv4Address address;
    for (std::uint8_t& byte : address) {
      byte = static_cast<std::uint8_t>(random() % 2 ? 255 : random() % 64);
    }
    ASSERT_EQ(plain.contains(address), addresses.contains(address)) << i;
    if (plain.insert(address).second) {
      ASSERT_TRUE(addresses.add(address));
    }
  }
  for (const Ipv4Address& address : plain) {
    EXPECT_TRUE(addresses.contains(address)) << address_text(address);
  }
}

FileDescriptor open_on(const Ipv4Address& address) {
  std::int32_t socket;
  EXPECT_TRUE(udp_open(socket));
  EXPECT_TRUE(udp_bind(socket, address, 0));
  return FileDescriptor(socket);
}

// Network plays all the servers of a scan: it hands each datagram that arrives
// to a script, with its number and the scanner's port.
class Network {
 public:
  using Script = std::function<void(int number, std::uint16_t scanner)>;

  explicit Network(Script script)
      : socket_(open_on(kLoopback)), script_(std::move(script)) {
    socket_local_address(socket_.get(), nullptr, &port);
    nics[0].name[0] = nics[1].name[0] = 'x';
    nics[0].broadcast = nics[1].broadcast = to_sockaddr(kLoopback, 0);
    thread_ = std::thread([this] { serve(); });
  }

  // stop waits for a last datagram of one byte.
  void stop() {
    const FileDescriptor last = open_on(kLoopback);
    EXPECT_FALSE(udp_send(last.get(), kLoopback, port, "", 1));
    thread_.join();
  }

  NicInfo nics[3] = {};  // two networks that reach the same servers
  std::uint16_t port = 0;
  std::vector<Bytes> received;

 private:
  void serve() {
    for (;;) {
      std::uint8_t bytes[64];
      ssize_t length = sizeof bytes;
      Ipv4Address sender;
      std::uint16_t scanner;
      if (udp_receive(socket_.get(), sender, scanner, bytes, length)) return;
      if (length == 1) return;
      received.emplace_back(bytes, bytes + length);
      script_(static_cast<int>(received.size()), scanner);
    }
  }

  FileDescriptor socket_;
  Script script_;
  std::thread thread_;
};

void send_from(const Ipv4Address& server, std::uint16_t scanner,
               const Bytes& bytes) {
  const FileDescriptor socket = open_on(server);
  EXPECT_FALSE(
      udp_send(socket.get(), kLoopback, scanner, bytes.data(), bytes.size()));
}

std::vector<std::string> scan(Network& network) {
  Text found;
  EXPECT_FALSE(scan_interfaces(network.nics, network.port, &found));
  network.stop();
  std::vector<std::string> list;
  for (const char* each = found.get(); *each; each = next_text(each)) {
    list.emplace_back(each);
  }
  return list;
}

TEST(DiscoveryScan, ListsEachServerOnceInTheOrderOfFirstAnswers) {
  std::vector<std::string> expected;
  Network network([&](int number, std::uint16_t scanner) {
    send_from(kLoopback, scanner, kQuery);
    send_from(kLoopback, scanner, Bytes(kAnswer.begin(), kAnswer.end() - 5));
    send_from(kLoopback, scanner, {});
    for (int i = 0; i < 50; ++i) {
      const auto host = static_cast<std::uint8_t>((i * 37 + 5) % 50);
      send_from({127, 1, 0, host}, scanner, kAnswer);
      if (number == 1) expected.push_back("127.1.0." + std::to_string(host));
    }
    if (number == 6) send_from({127, 2, 0, 1}, scanner, kAnswer);
  });
  const std::vector<std::string> found = scan(network);
  expected.push_back("127.2.0.1");
  EXPECT_EQ(expected, found);
  EXPECT_EQ(std::vector<Bytes>(6, kQuery), network.received);
}

TEST(DiscoveryScan, ComplainsAboutAMissingPlace) {
  EXPECT_STREQ("found_servers must not be NULL",
               scan_for_servers(1, nullptr).c_str());
}

TEST(DiscoveryScan, ForeignDatagramsRestartTheSecond) {
  // The answer comes 1.4 seconds after the last query: only the foreign
  // datagram halfway keeps the scan listening.
  using std::chrono::milliseconds;
  Network network([&](int number, std::uint16_t scanner) {
    if (number != 6) return;
    std::this_thread::sleep_for(milliseconds(700));
    send_from(kLoopback, scanner, {1, 2, 3});
    std::this_thread::sleep_for(milliseconds(700));
    send_from(kLoopback, scanner, kAnswer);
  });
  EXPECT_EQ(std::vector<std::string>{"127.0.0.1"}, scan(network));
}

}  // namespace
}  // namespace velprobe
