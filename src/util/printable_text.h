// Texts of unknown origin, made fit to be shown.
#ifndef VELPROBE_UTIL_PRINTABLE_TEXT_H_
#define VELPROBE_UTIL_PRINTABLE_TEXT_H_

#include <cstddef>
#include <string_view>

#pragma GCC visibility push(default)
namespace velprobe {

// utf8_length gives the bytes of the UTF-8 sequence at the given place of a
// text (RFC 3629, section 4), 1 for a byte that begins no valid one.
std::size_t utf8_length(const char* text);

// code_point decodes one valid sequence of UTF-8 (RFC 3629, section 3); of a
// byte that belongs to none it gives the byte.
constexpr char32_t code_point(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  char32_t value =
      sequence.size() == 1 ? first : first & (0x7FU >> sequence.size());
  for (const char next : sequence.substr(1)) {
    value = value << 6 | (static_cast<unsigned char>(next) & 0x3FU);
  }
  return value;
}

// is_misleading tells the characters that show a line in another order than it
// has or end it: marks, embeddings, overrides and isolates of the bidirectional
// algorithm (UAX #9), and the separators of lines and paragraphs.
constexpr bool is_misleading(char32_t code) {
  return code == 0x061C || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

// replace_control_bytes makes a text of unknown origin fit for a terminal or a
// log line: each byte of a control character becomes "?", the length stays.
// Control characters are 0x01-0x1F, DEL, U+0080-U+009F in UTF-8 and, since an
// 8-bit terminal obeys them too, bytes 0x80-0x9F outside valid UTF-8.
void replace_control_bytes(char* text);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_PRINTABLE_TEXT_H_
