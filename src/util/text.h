// Owned texts, growing byte buffers, lists of texts, and small text helpers.
#ifndef VELPROBE_UTIL_TEXT_H_
#define VELPROBE_UTIL_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#pragma GCC visibility push(default)
namespace velprobe {

// Text owns a text that a NUL ends; null means that the text is absent.
using Text = std::unique_ptr<char[]>;

// new_text allocates room for length characters and the NUL, all zero; null
// when memory is short.
[[nodiscard]] Text new_text(std::size_t length);

// copy_text makes a new copy of text; null when memory is short.
[[nodiscard]] Text copy_text(std::string_view text);

// is_absent_or_empty is true for a null pointer and for "".
inline bool is_absent_or_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

// is_white_space tells the six characters for which isspace holds in the C
// locale, whatever the locale is.
constexpr bool is_white_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// ByteBuffer is a growing run of bytes whose growth can fail. Its capacity
// doubles, so that appending is linear over all.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& other) noexcept;
  ByteBuffer& operator=(ByteBuffer&& other) noexcept;
  ~ByteBuffer();

  // append adds bytes at the end. False when memory is short: the buffer is
  // then as it was.
  [[nodiscard]] bool append(std::string_view bytes);

  // reserve makes room for at least extra further bytes. False when memory is
  // short: the buffer is then as it was.
  [[nodiscard]] bool reserve(std::size_t extra);

  const char* data() const { return data_; }
  char* data() { return data_; }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  // resize sets the number of bytes in use; it never exceeds the capacity.
  void resize(std::size_t size) { size_ = size; }
  std::string_view view() const { return {data_, size_}; }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// A text list is one buffer of texts, each ended by a NUL, the whole ended by
// an empty text. next_text gives the text behind the given one, so a walk reads
//
//   for (const char* name = list; *name != '\0'; name = next_text(name))
const char* next_text(const char* text);

// copy_bounded copies at most size - 1 characters of source and always ends
// them with a NUL; a size of 0 writes nothing.
void copy_bounded(char* destination, const char* source, std::size_t size);

// wildcard_match returns 1 when pattern matches the whole of text, else 0:
// "?" is any one character, "*" any run of characters, case counts, nothing is
// escaped. A character equal to the pattern's is taken before "*" acts as a
// wildcard, so a "*" that meets a "*" in the text is only that one character.
// Time is at worst text length times pattern length; the stack does not grow. A
// pattern of more than 255 characters takes as much memory again, and matches
// nothing when that is short.
int wildcard_match(const char* text, const char* pattern);

// parse_decimal skips white space and reads decimal digits; no sign, wrapping
// modulo 2^64; no digits give 0. When end is given it is set to the first
// character that is not a digit.
std::uint64_t parse_decimal(const char* text, const char** end = nullptr);

// replace_control_bytes makes a text of unknown origin fit for a terminal or a
// log line: each byte of a control character becomes "?", the length stays.
// Control characters are 0x01-0x1F, DEL, U+0080-U+009F in UTF-8 and, since an
// 8-bit terminal obeys them too, bytes 0x80-0x9F outside valid UTF-8.
void replace_control_bytes(char* text);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_TEXT_H_
