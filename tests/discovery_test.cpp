// The discovery datagram, and the scan against servers on loopback.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "net/system_socket.h"
#include "net/tcp.h"
#include "net/udp.h"
#include "probe/address_set.h"
#include "probe/discovery_datagram.h"
#include "probe/discovery_scan.h"

namespace velprobe {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kQuery{0x12, 0x34, 0x56, 0x78, 0x00, 0x00, 0x14, 0x54, 0x00, 0x00,
                   0x00, 0x05, 0x00, 0x00, 0x00, 0x01, 0x4A, 0xC5, 0x35, 0xD6};

Bytes bytes_of(const DiscoveryDatagram& datagram) {
  return {datagram.begin(), datagram.end()};
}

TEST(Crc32, IsThePublishedOneAtEveryLengthModuloEight) {
  Bytes bytes;
  for (int i = 0; i < 40; ++i) {
    // One bit at a time, without a table.
    std::uint32_t expected = 0xFFFFFFFF;
    for (const std::uint8_t byte : bytes) {
      expected ^= byte;
      for (int bit = 0; bit < 8; ++bit) {
        expected = expected & 1 ? expected >> 1 ^ 0xEDB88320 : expected >> 1;
      }
    }
    EXPECT_EQ(~expected, crc32(bytes.data(), bytes.size())) << i;
    bytes.push_back(static_cast<std::uint8_t>(i * 73 + 1));
  }
  const Bytes digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(0xCBF43926, crc32(digits.data(), digits.size()));
}

// Datagram is one made from the query: byte `at` set, then cut or filled up.
struct Datagram {
  std::size_t at;
  std::uint8_t value;
  std::size_t length;
  bool accepted;

  Bytes bytes(std::uint8_t kind) const {
    Bytes made = kQuery;
    made[15] = kind;
    made[at] = value;
    made.resize(length);
    return made;
  }
};

TEST(DiscoveryDatagram, AnswersAreAcceptedByMagicWordAndKindOnly) {
  const Datagram rows[] = {
      {7, 0x54, 16, true},   // no checksum at all
      {7, 0x54, 15, false},  // short of its kind
      {7, 0x54, 0, false},  {7, 0x54, 4096, true},
      {4, 0xFF, 20, true},   // any word1
      {19, 0xFF, 20, true},  // any checksum
      {0, 0x13, 20, false}, {3, 0x79, 20, false},
      {11, 4, 20, false},   {12, 1, 20, false},
      {15, 1, 20, false},  // another scanner's query
      {15, 3, 20, false},
  };
  for (const Datagram& row : rows) {
    const Bytes bytes = row.bytes(2);
    EXPECT_EQ(row.accepted, is_discovery_answer(bytes.data(), bytes.size()))
        << row.at << " " << row.length;
  }
  const Bytes answer = bytes_of(build_discovery_answer());
  EXPECT_TRUE(is_discovery_answer(answer.data(), answer.size()));
}

TEST(DiscoveryDatagram, QueriesAreWholeAndChecked) {
  EXPECT_EQ(kQuery, bytes_of(build_discovery_query()));
  const Datagram rows[] = {
      {15, 1, 20, true},    {15, 1, 19, false},    {15, 1, 21, false},
      {15, 2, 20, false},   {19, 0xD7, 20, false}, {16, 0, 20, false},
      {4, 0xFF, 20, false}, {0, 0, 20, false},
  };
  for (const Datagram& row : rows) {
    const Bytes bytes = row.bytes(1);
    EXPECT_EQ(row.accepted, is_discovery_query(bytes.data(), bytes.size()))
        << row.at << " " << row.length;
  }
}

Ipv4Address loopback_host(std::size_t number) {
  return {127, 1, static_cast<std::uint8_t>(number >> 8),
          static_cast<std::uint8_t>(number)};
}

TEST(AddressSet, HoldsTenThousandNeighbours) {
  AddressSet set;
  EXPECT_FALSE(set.contains({0, 0, 0, 0}));
  for (std::size_t i = 0; i < 10'000; ++i) {
    ASSERT_FALSE(set.contains(loopback_host(i))) << i;
    ASSERT_TRUE(set.add(loopback_host(i)));
  }
  for (std::size_t i = 0; i < 10'000; ++i) {
    ASSERT_TRUE(set.contains(loopback_host(i))) << i;
  }
  EXPECT_FALSE(set.contains({255, 255, 255, 255}));
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
      : socket_(open_on({127, 0, 0, 1})), script_(std::move(script)) {
    socket_local_address(socket_.get(), nullptr, &port);
    nics[0].name[0] = nics[1].name[0] = 'x';
    nics[0].broadcast = nics[1].broadcast = to_sockaddr({127, 0, 0, 1}, 0);
    thread_ = std::thread([this] { serve(); });
  }

  // stop waits for a last datagram of one byte.
  void stop() {
    const FileDescriptor last = open_on({127, 0, 0, 1});
    EXPECT_FALSE(udp_send(last.get(), {127, 0, 0, 1}, port, "", 1));
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
  EXPECT_FALSE(udp_send(socket.get(), {127, 0, 0, 1}, scanner, bytes.data(),
                        bytes.size()));
}

std::vector<std::string> list_of(const Text& servers) {
  std::vector<std::string> list;
  for (const char* each = servers.get(); *each; each = next_text(each)) {
    list.emplace_back(each);
  }
  return list;
}

TEST(DiscoveryScan, ListsEachServerOnceInTheOrderOfFirstAnswers) {
  const Bytes answer = bytes_of(build_discovery_answer());
  constexpr std::size_t kNumServers = 50;
  Network network([&](int number, std::uint16_t scanner) {
    send_from({127, 0, 0, 9}, scanner, kQuery);
    send_from({127, 0, 0, 9}, scanner, Bytes(answer.begin(), answer.end() - 5));
    send_from({127, 0, 0, 9}, scanner, {});
    for (std::size_t i = 0; i < kNumServers; ++i) {
      send_from(loopback_host((i * 37 + 5) % kNumServers), scanner, answer);
    }
    if (number == 6) send_from({127, 2, 0, 1}, scanner, answer);
  });
  Text found;
  EXPECT_FALSE(scan_interfaces(network.nics, network.port, &found));
  network.stop();

  EXPECT_EQ(std::vector<Bytes>(6, kQuery), network.received);
  std::vector<std::string> expected;
  for (std::size_t i = 0; i < kNumServers; ++i) {
    const std::size_t host = (i * 37 + 5) % kNumServers;
    expected.push_back("127.1.0." + std::to_string(host));
  }
  expected.push_back("127.2.0.1");
  EXPECT_EQ(expected, list_of(found));
}

TEST(DiscoveryScan, ForeignDatagramsRestartTheSecond) {
  // The answer comes 1.4 seconds after the last query: only the foreign
  // datagram halfway keeps the scan listening.
  using std::chrono::milliseconds;
  Network network([&](int number, std::uint16_t scanner) {
    if (number != 6) return;
    std::this_thread::sleep_for(milliseconds(700));
    send_from({127, 0, 0, 9}, scanner, {1, 2, 3});
    std::this_thread::sleep_for(milliseconds(700));
    send_from({127, 0, 0, 9}, scanner, bytes_of(build_discovery_answer()));
  });
  Text found;
  EXPECT_FALSE(scan_interfaces(network.nics, network.port, &found));
  network.stop();
  EXPECT_EQ(std::vector<std::string>{"127.0.0.9"}, list_of(found));
}

TEST(DiscoveryScan, FailuresLeaveNothingBehind) {
  EXPECT_STREQ("found_servers must not be NULL",
               scan_for_servers(3241, nullptr).c_str());
  NicInfo nics[2] = {};
  nics[0].name[0] = 'x';
  nics[0].broadcast = to_sockaddr({127, 0, 0, 1}, 0);
  const int next_descriptor = open_on({127, 0, 0, 1}).get();
  Text found = copy_text("stale");
  EXPECT_STREQ("UDP send failed (Invalid argument)",
               scan_interfaces(nics, 0, &found).c_str());
  EXPECT_FALSE(found);
  EXPECT_EQ(next_descriptor, open_on({127, 0, 0, 1}).get());
}

}  // namespace
}  // namespace velprobe
