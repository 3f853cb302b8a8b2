// Texts of unknown origin, made fit to be shown.
#ifndef VELPROBE_UTIL_PRINTABLE_TEXT_H_
#define VELPROBE_UTIL_PRINTABLE_TEXT_H_

#include <cstddef>

#pragma GCC visibility push(default)
namespace velprobe {

// utf8_length gives the bytes of the UTF-8 sequence at the given place of a
// text (RFC 3629, section 4), 1 for a byte that begins no valid one.
std::size_t utf8_length(const char* text);

// replace_control_bytes makes a text of unknown origin fit for a terminal or a
// log line: each byte of a control character becomes "?", the length stays.
// Control characters are 0x01-0x1F, DEL, U+0080-U+009F in UTF-8 and, since an
// 8-bit terminal obeys them too, bytes 0x80-0x9F outside valid UTF-8.
void replace_control_bytes(char* text);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_PRINTABLE_TEXT_H_
