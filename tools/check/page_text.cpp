#include "page_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "json.h"
#include "util/printable_text.h"

namespace velprobe::check {
namespace {

// Characters that a page must not obey or hide, by Unicode's tables.
struct Span {
  char32_t first, last;
};
constexpr Span kUnseen[] = {
    {0x00, 0x1F},        // C0, line ends among them
    {0x7F, 0x9F},        // DEL and C1
    {0xAD, 0xAD},        // soft hyphen
    {0x061C, 0x061C},    // Arabic letter mark
    {0x115F, 0x1160},    // Hangul fillers
    {0x180E, 0x180E},    // Mongolian vowel separator
    {0x200B, 0x200F},    // of no width; marks of direction
    {0x2028, 0x202E},    // line ends; embeddings and overrides
    {0x2060, 0x206F},    // joiners, isolates and old controls
    {0x3164, 0x3164},    // Hangul filler
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xFFA0, 0xFFA0},    // Hangul filler
    {0xFFF9, 0xFFFB},    // annotations
    {0xE0000, 0xE0FFF},  // tags and variants
};

bool is_unseen(char32_t character) {
  return std::any_of(std::begin(kUnseen), std::end(kUnseen),
                     [=](const Span& span) {
                       return character >= span.first && character <= span.last;
                     });
}

std::string_view reference_for(char32_t character) {
  switch (character) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return {};
  }
}

std::string number_of(char32_t character) {
  char text[16];
  std::snprintf(text, sizeof text, "[U+%04X]",
                static_cast<unsigned>(character));
  return text;
}

}  // namespace

std::string html_text(std::string_view text) {
  const std::string valid = valid_utf8(text);
  std::string html;
  html.reserve(valid.size());
  std::string_view rest = valid;
  while (!rest.empty()) {
    const std::string_view bytes = rest.substr(0, utf8_length(rest.data()));
    rest.remove_prefix(bytes.size());
    const char32_t character = code_point(bytes);
    const std::string_view reference = reference_for(character);
    if (!reference.empty()) {
      html += reference;
    } else if (is_unseen(character)) {
      html += number_of(character);
    } else {
      html += bytes;
    }
  }
  return html;
}

}  // namespace velprobe::check
