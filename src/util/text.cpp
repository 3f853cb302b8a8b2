#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace velprobe {
namespace {

constexpr std::size_t kSmallestCapacity = 64;

// Pattern positions that wildcard_match keeps on the stack.
constexpr std::size_t kFewPositions = 256;

// take_character moves the live pattern positions over one character of the
// text. live[p] says that the text up to here can stand against the first p
// characters of the pattern. False when no position is left alive.
bool take_character(char* live, const char* pattern, std::size_t length,
                    char c) {
  // A "*" in the text is only ever taken literally.
  const bool stars_act = c != '*';
  if (stars_act) {
    for (std::size_t p = 0; p < length; ++p) {
      if (live[p] && pattern[p] == '*') live[p + 1] = true;
    }
  }
  bool any_alive = false;
  // Downwards, so that live[p - 1] is still the one before this character.
  for (std::size_t p = length + 1; p-- > 0;) {
    const bool stays = live[p] && stars_act && pattern[p] == '*';
    const bool steps =
        p > 0 && live[p - 1] &&
        (pattern[p - 1] == c || pattern[p - 1] == '?' || pattern[p - 1] == '*');
    live[p] = stays || steps;
    any_alive |= stays || steps;
  }
  return any_alive;
}

using Byte = unsigned char;

bool is_between(Byte byte, int low, int high) {
  return byte >= low && byte <= high;
}

// utf8_length gives the bytes of the UTF-8 sequence at the given place of a
// text (RFC 3629, section 4), 1 for a byte that begins no valid one.
std::size_t utf8_length(const Byte* bytes) {
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

bool is_control(const Byte* bytes, std::size_t length) {
  if (length == 1) return bytes[0] < 0x20 || is_between(bytes[0], 0x7F, 0x9F);
  return bytes[0] == 0xC2 && bytes[1] < 0xA0;
}

}  // namespace

Text new_text(std::size_t length) {
  if (length == SIZE_MAX) return nullptr;
  return Text(new (std::nothrow) char[length + 1]());
}

Text copy_text(std::string_view text) {
  Text copy = new_text(text.size());
  if (copy) text.copy(copy.get(), text.size());
  return copy;
}

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  return *this;
}

ByteBuffer::~ByteBuffer() {
  std::free(data_);
}

bool ByteBuffer::reserve(std::size_t extra) {
  if (extra <= capacity_ - size_) return true;
  // Half of the address space is out of reach anyway, and sums stay sums.
  if (extra > SIZE_MAX / 4 || capacity_ > SIZE_MAX / 4) return false;
  const std::size_t capacity =
      std::max({size_ + extra, 2 * capacity_, kSmallestCapacity});
  void* data = std::realloc(data_, capacity);
  if (data == nullptr) return false;
  data_ = static_cast<char*>(data);
  capacity_ = capacity;
  return true;
}

bool ByteBuffer::append(std::string_view bytes) {
  if (!reserve(bytes.size())) return false;
  if (!bytes.empty()) std::memcpy(data_ + size_, bytes.data(), bytes.size());
  size_ += bytes.size();
  return true;
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

// One remembered "*" to come back to is not enough here: a later "*" cannot
// take every run, since it stops being a wildcard at a "*" of the text. So all
// pattern positions that the text can have reached are followed side by side.
int wildcard_match(const char* text, const char* pattern) {
  const std::size_t length = std::strlen(pattern);
  char few[kFewPositions] = {};
  Text many;
  if (length >= kFewPositions && !(many = new_text(length))) return 0;
  char* live = many ? many.get() : few;

  live[0] = true;
  for (; *text != '\0'; ++text) {
    if (!take_character(live, pattern, length, *text)) return 0;
  }
  std::size_t end = length;
  while (!live[end] && end > 0 && pattern[end - 1] == '*') --end;
  return live[end] ? 1 : 0;
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

void replace_control_bytes(char* text) {
  while (*text != '\0') {
    const Byte* bytes = reinterpret_cast<const Byte*>(text);
    const std::size_t length = utf8_length(bytes);
    if (is_control(bytes, length)) std::memset(text, '?', length);
    text += length;
  }
}

}  // namespace velprobe
