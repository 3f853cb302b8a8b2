#include "discovery_datagram.h"

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

inline std::uint32_t crc_step(std::uint32_t crc, std::uint8_t byte) {
  return (crc >> 8) ^ kCrcTable[(crc ^ byte) & 0xFF];
}

void put_word(std::uint8_t* place, std::uint32_t word) {
  place[0] = static_cast<std::uint8_t>(word >> 24);
  place[1] = static_cast<std::uint8_t>(word >> 16);
  place[2] = static_cast<std::uint8_t>(word >> 8);
  place[3] = static_cast<std::uint8_t>(word);
}

std::uint32_t get_word(const std::uint8_t* place) {
  return std::uint32_t{place[0]} << 24 | std::uint32_t{place[1]} << 16 |
         std::uint32_t{place[2]} << 8 | place[3];
}

DiscoveryDatagram build(Kind kind) {
  DiscoveryDatagram datagram;
  put_word(&datagram[kMagicAt], kMagic);
  put_word(&datagram[kWord1At], kWord1);
  put_word(&datagram[kWord2At], kWord2);
  put_word(&datagram[kKindAt], kind);
  put_word(&datagram[kChecksumAt], crc32(datagram.data(), kChecksumAt));
  return datagram;
}

bool is_of_kind(const std::uint8_t* bytes, Kind kind) {
  return get_word(bytes + kMagicAt) == kMagic &&
         get_word(bytes + kWord2At) == kWord2 &&
         get_word(bytes + kKindAt) == kind;
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
         get_word(bytes + kChecksumAt) == crc32(bytes, kChecksumAt);
}

bool is_discovery_answer(const std::uint8_t* bytes, std::size_t length) {
  return length >= kChecksumAt && is_of_kind(bytes, kAnswer);
}

std::uint32_t crc32(const std::uint8_t* bytes, std::size_t length) {
  std::uint32_t crc = 0xFFFFFFFF;
  const std::uint8_t* const end = bytes + length;
  for (const std::uint8_t* rest = bytes + length % 8; bytes != rest; ++bytes) {
    crc = crc_step(crc, *bytes);
  }
  for (; bytes != end; bytes += 8) {
    crc = crc_step(crc, bytes[0]);
    crc = crc_step(crc, bytes[1]);
    crc = crc_step(crc, bytes[2]);
    crc = crc_step(crc, bytes[3]);
    crc = crc_step(crc, bytes[4]);
    crc = crc_step(crc, bytes[5]);
    crc = crc_step(crc, bytes[6]);
    crc = crc_step(crc, bytes[7]);
  }
  return ~crc;
}

}  // namespace velprobe
