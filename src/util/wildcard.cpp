#include "wildcard.h"

#include <cstddef>
#include <cstring>

#include "text.h"

namespace velprobe {
namespace {

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

}  // namespace

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

}  // namespace velprobe
