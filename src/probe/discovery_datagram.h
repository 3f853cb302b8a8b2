// The discovery datagram: how a scanner asks for servers over UDP and how they
// answer. All fields are unsigned 32-bit numbers, most significant byte first.
//
//   offset  0  magic     0x12345678
//   offset  4  word1     0x00001454; a scanner ignores it in answers
//   offset  8  word2     5
//   offset 12  kind      1 query, 2 answer
//   offset 16  checksum  CRC-32 of the sixteen bytes before; answers may lack
//                        it, carry any other or more bytes
#ifndef VELPROBE_PROBE_DISCOVERY_DATAGRAM_H_
#define VELPROBE_PROBE_DISCOVERY_DATAGRAM_H_

#include <array>
#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(default)
namespace velprobe {

using DiscoveryDatagram = std::array<std::uint8_t, 20>;

DiscoveryDatagram build_discovery_query();
DiscoveryDatagram build_discovery_answer();

// is_discovery_query tells whether length bytes are a query with a right
// checksum: what a server answers.
bool is_discovery_query(const std::uint8_t* bytes, std::size_t length);

// is_discovery_answer tells whether length bytes are what a scanner accepts: at
// least the sixteen bytes up to the checksum, which is not verified.
bool is_discovery_answer(const std::uint8_t* bytes, std::size_t length);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_PROBE_DISCOVERY_DATAGRAM_H_
