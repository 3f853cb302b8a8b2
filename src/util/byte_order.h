// 32-bit numbers as four bytes, whatever the order of the processor.
#ifndef VELPROBE_UTIL_BYTE_ORDER_H_
#define VELPROBE_UTIL_BYTE_ORDER_H_

#include <cstdint>

namespace velprobe {

inline std::uint32_t load_big_endian(const std::uint8_t* bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
         std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
}

inline void store_big_endian(std::uint32_t word, std::uint8_t* bytes) {
  bytes[0] = static_cast<std::uint8_t>(word >> 24);
  bytes[1] = static_cast<std::uint8_t>(word >> 16);
  bytes[2] = static_cast<std::uint8_t>(word >> 8);
  bytes[3] = static_cast<std::uint8_t>(word);
}

inline std::uint32_t load_little_endian(const std::uint8_t* bytes) {
  return std::uint32_t{bytes[3]} << 24 | std::uint32_t{bytes[2]} << 16 |
         std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[0]};
}

}  // namespace velprobe

#endif  // VELPROBE_UTIL_BYTE_ORDER_H_
