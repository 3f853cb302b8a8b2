// The checksum of the discovery datagrams.
#ifndef VELPROBE_PROBE_CRC32_H_
#define VELPROBE_PROBE_CRC32_H_

#include <cstddef>
#include <cstdint>

namespace velprobe {

// crc32 is the reflected CRC-32 of IEEE 802.3: polynomial 0xEDB88320, register
// started at all ones, result complemented.
std::uint32_t crc32(const std::uint8_t* bytes, std::size_t length);

}  // namespace velprobe

#endif  // VELPROBE_PROBE_CRC32_H_
