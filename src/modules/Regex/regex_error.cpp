#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "regex.h"

namespace velprobe {
namespace {

struct ErrorEntry {
  const char* name;
  const char* text;
};

// Indexed by code - 1.
constexpr ErrorEntry kErrors[] = {
    {"REG_NOMATCH", "The text does not match"},
    {"REG_BADPAT", "The pattern has no meaning as written"},
    {"REG_ECOLLATE", "[. .] or [= =] names no collating element"},
    {"REG_ECTYPE", "[: :] names no character class"},
    {"REG_EESCAPE", "The pattern stops after a backslash"},
    {"REG_ESUBREG",
     "A back-reference to a group that is not finished before it"},
    {"REG_EBRACK", "A [ is never closed"},
    {"REG_EPAREN", "A parenthesis has no partner"},
    {"REG_EBRACE", "A { is never closed"},
    {"REG_BADBR",
     "The counts in { } are out of order, too large or no numbers"},
    {"REG_ERANGE",
     "A range in [ ] runs backwards or has an end that is no character"},
    {"REG_ESPACE", "The pattern or the search exceeds its memory"},
    {"REG_BADRPT", "A repetition has nothing to repeat"},
    {"REG_INVARG", "The call has an argument that makes no sense"},
};

const ErrorEntry* find_error(int code) {
  const bool known = code >= 1 && code <= static_cast<int>(std::size(kErrors));
  return known ? &kErrors[code - 1] : nullptr;
}

}  // namespace

const char* regex_error_name(int code) {
  if (const ErrorEntry* error = find_error(code)) return error->name;
  thread_local char name[sizeof "REG_0x" + 2 * sizeof code];
  std::snprintf(name, sizeof name, "REG_0x%x", static_cast<unsigned>(code));
  return name;
}

const char* regex_error_text(int code) {
  const ErrorEntry* error = find_error(code);
  return error != nullptr ? error->text : "No such error";
}

std::size_t regex_error(int code, char* out_text, std::size_t size) {
  const char* text = regex_error_text(code);
  const std::size_t needed = std::strlen(text) + 1;
  if (out_text != nullptr && size > 0) {
    const std::size_t kept = std::min(size, needed) - 1;
    std::memcpy(out_text, text, kept);
    out_text[kept] = '\0';
  }
  return needed;
}

}  // namespace velprobe
