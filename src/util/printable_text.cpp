#include "printable_text.h"

#include <cstddef>
#include <cstring>

namespace velprobe {
namespace {

using Byte = unsigned char;

bool is_between(Byte byte, int low, int high) {
  return byte >= low && byte <= high;
}

bool is_control(const Byte* bytes, std::size_t length) {
  if (length == 1) return bytes[0] < 0x20 || is_between(bytes[0], 0x7F, 0x9F);
  return bytes[0] == 0xC2 && bytes[1] < 0xA0;
}

}  // namespace

std::size_t utf8_length(const char* text) {
  const Byte* bytes = reinterpret_cast<const Byte*>(text);
  struct Lead {
    int first, last;  // first byte
    int second_low, second_high;
    std::size_t length;
  };
  static constexpr Lead kLeads[] = {
      {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
      {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3},
      {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
      {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
  };
  for (const Lead& lead : kLeads) {
    if (!is_between(bytes[0], lead.first, lead.last)) continue;
    if (!is_between(bytes[1], lead.second_low, lead.second_high)) return 1;
    for (std::size_t i = 2; i < lead.length; ++i) {
      if (!is_between(bytes[i], 0x80, 0xBF)) return 1;
    }
    return lead.length;
  }
  return 1;
}

void replace_control_bytes(char* text) {
  while (*text != '\0') {
    const Byte* bytes = reinterpret_cast<const Byte*>(text);
    const std::size_t length = utf8_length(text);
    if (is_control(bytes, length)) std::memset(text, '?', length);
    text += length;
  }
}

}  // namespace velprobe
