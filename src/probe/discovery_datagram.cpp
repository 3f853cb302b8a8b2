#include "discovery_datagram.h"

#include "../util/byte_order.h"
#include "crc32.h"

namespace velprobe {

namespace {

enum Offset : std::size_t {
  kMagicAt = 0,
  kWord1At = 4,
  kWord2At = 8,
  kKindAt = 12,
  kChecksumAt = 16,
};

constexpr std::uint32_t kMagic = 0x12345678;
constexpr std::uint32_t kWord1 = 0x00001454;
constexpr std::uint32_t kWord2 = 5;

enum Kind : std::uint32_t { kQuery = 1, kAnswer = 2 };

constexpr std::array<std::uint32_t, 256> make_crc_table() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t index = 0; index < table.size(); ++index) {
    std::uint32_t word = index;
    for (int bit = 0; bit < 8; ++bit) {
      word = (word >> 1) ^ (word & 1 ? 0xEDB88320 : 0);
    }
    table[index] = word;
  }
  return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = make_crc_table();

DiscoveryDatagram build(Kind kind) {
  DiscoveryDatagram datagram;
  store_big_endian(kMagic, &datagram[kMagicAt]);
  store_big_endian(kWord1, &datagram[kWord1At]);
  store_big_endian(kWord2, &datagram[kWord2At]);
  store_big_endian(kind, &datagram[kKindAt]);
  store_big_endian(crc32(datagram.data(), kChecksumAt), &datagram[kChecksumAt]);
  return datagram;
}

bool is_of_kind(const std::uint8_t* bytes, Kind kind) {
  return load_big_endian(bytes + kMagicAt) == kMagic &&
         load_big_endian(bytes + kWord2At) == kWord2 &&
         load_big_endian(bytes + kKindAt) == kind;
}

}  // namespace

DiscoveryDatagram build_discovery_query() {
  return build(kQuery);
}

DiscoveryDatagram build_discovery_answer() {
  return build(kAnswer);
}

bool is_discovery_query(const std::uint8_t* bytes, std::size_t length) {
  return length == DiscoveryDatagram{}.size() && is_of_kind(bytes, kQuery) &&
         load_big_endian(bytes + kChecksumAt) == crc32(bytes, kChecksumAt);
}

bool is_discovery_answer(const std::uint8_t* bytes, std::size_t length) {
  return length >= kChecksumAt && is_of_kind(bytes, kAnswer);
}

std::uint32_t crc32(const std::uint8_t* bytes, std::size_t length) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < length; ++i) {
    crc = (crc >> 8) ^ kCrcTable[(crc ^ bytes[i]) & 0xFF];
  }
  return ~crc;
}

}  // namespace velprobe
