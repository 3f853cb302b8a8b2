#include "line.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "util/printable_text.h"
#include "util/text.h"

namespace velprobe::standin {

namespace {

void add_escaped(Line& line, std::string_view sequence, bool names_controls) {
  const char32_t code = code_point(sequence);
  if (code == '"' || code == '\\') {
    line.add("\\");
    line.add(sequence);
  } else if (is_misleading(code) ||
             (names_controls &&
              (code < 0x20 || (code >= 0x7F && code < 0xA0)))) {
    line.add_format("\\u%04X", static_cast<unsigned>(code));
  } else {
    line.add(sequence);
  }
}

// for_each_sequence calls with each sequence of UTF-8 and with each byte that
// belongs to none.
template <typename Call>
void for_each_sequence(const char* text, Call call) {
  while (*text != '\0') {
    const std::size_t length = utf8_length(text);
    call(std::string_view(text, length));
    text += length;
  }
}

bool is_valid(std::string_view sequence) {
  return sequence.size() > 1 || static_cast<unsigned char>(sequence[0]) < 0x80;
}

}  // namespace

void Line::add(std::string_view piece) {
  is_whole_ = is_whole_ && bytes_.append(piece);
}

void Line::add_format(const char* format, ...) {
  std::array<char, 256> piece;
  va_list arguments;
  va_start(arguments, format);
  // va_start is lost on the analyzer.
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  std::vsnprintf(piece.data(), piece.size(), format, arguments);
  va_end(arguments);
  add(piece.data());
}

void Line::add_quoted(const char* text) {
  const Text printable = copy_text(text != nullptr ? text : "");
  if (!printable) {
    is_whole_ = false;
    return;
  }
  replace_control_bytes(printable.get());
  add("\"");
  for_each_sequence(printable.get(), [this](std::string_view sequence) {
    if (is_valid(sequence)) {
      add_escaped(*this, sequence, false);
    } else {
      add(sequence);  // Latin-1 stays what it is
    }
  });
  add("\"");
}

void Line::add_json(const char* text) {
  add("\"");
  for_each_sequence(text != nullptr ? text : "",
                    [this](std::string_view sequence) {
                      if (is_valid(sequence)) {
                        add_escaped(*this, sequence, true);
                      } else {
                        add("\uFFFD");
                      }
                    });
  add("\"");
}

}  // namespace velprobe::standin
