#include "text.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace velprobe {

Text new_text(std::size_t length) {
  if (length == SIZE_MAX) return nullptr;
  return Text(new (std::nothrow) char[length + 1]());
}

Text copy_text(std::string_view text) {
  Text copy = new_text(text.size());
  if (copy) text.copy(copy.get(), text.size());
  return copy;
}

const char* next_text(const char* text) {
  return text + std::strlen(text) + 1;
}

void copy_bounded(char* destination, const char* source, std::size_t size) {
  if (size == 0) return;
  const std::size_t length = strnlen(source, size - 1);
  std::memcpy(destination, source, length);
  destination[length] = '\0';
}

std::uint64_t parse_decimal(const char* text, const char** end) {
  while (is_white_space(*text)) ++text;
  std::uint64_t value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    value = value * 10 + static_cast<std::uint64_t>(*text - '0');
  }
  if (end != nullptr) *end = text;
  return value;
}

}  // namespace velprobe
