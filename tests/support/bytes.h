// Bytes in tests: hexadecimal text to bytes and back.
#ifndef VELPROBE_TESTS_BYTES_H_
#define VELPROBE_TESTS_BYTES_H_

#include <cstdio>
#include <string>
#include <string_view>

namespace velprobe {

// bytes_of reads pairs of hexadecimal digits; blanks between them are free.
inline std::string bytes_of(std::string_view hex) {
  std::string digits;
  for (char c : hex) {
    if (c != ' ') digits += c;
  }
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// hex_of gives pairs of upper-case digits with blanks between them.
inline std::string hex_of(std::string_view bytes) {
  std::string hex;
  for (char c : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%s%02X", hex.empty() ? "" : " ",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    hex += pair;
  }
  return hex;
}

// digits_of gives lower-case digits without blanks, as public vectors do.
inline std::string digits_of(std::string_view bytes) {
  std::string digits;
  for (char byte : bytes) {
    digits += "0123456789abcdef"[byte >> 4 & 15];
    digits += "0123456789abcdef"[byte & 15];
  }
  return digits;
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_BYTES_H_
