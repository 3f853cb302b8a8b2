// Owned texts, lists of texts, and the small helpers that go with them.
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

// new_text allocates space for length characters and the NUL, all zero; null
// when memory runs out.
[[nodiscard]] Text new_text(std::size_t length);

// copy_text makes a new copy of text; null when memory runs out.
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

// trimmed is text without the white space at both ends.
constexpr std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_white_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_white_space(text.back())) text.remove_suffix(1);
  return text;
}

// without_mark is text without the mark (U+FEFF) that some editors put in front
// of UTF-8.
constexpr std::string_view without_mark(std::string_view text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  return text.starts_with(kByteOrderMark) ? text.substr(kByteOrderMark.size())
                                          : text;
}

// A text list is one buffer of texts, each ended by a NUL, the whole ended by
// an empty text. next_text gives the text behind the given one, so a walk reads
//
//   for (const char* name = list; *name != '\0'; name = next_text(name))
const char* next_text(const char* text);

// copy_bounded copies at most size - 1 characters of source and always ends
// them with a NUL; a size of 0 writes nothing.
void copy_bounded(char* destination, const char* source, std::size_t size);

// parse_decimal skips white space and reads decimal digits; no sign, wrapping
// modulo 2^64; no digits give 0. When end is given it is set to the first
// character that is not a digit.
std::uint64_t parse_decimal(const char* text, const char** end = nullptr);

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_UTIL_TEXT_H_
