// wildcard_match against its definition, written down as a table.
#include "fuzz.h"
#include "util/wildcard.h"

namespace velprobe {
namespace {

constexpr std::size_t kMost = 63;

// matches takes an equal character before "*" acts, as the matcher promises.
bool matches(const std::string& text, const std::string& pattern) {
  // can[t][p]: the text from t on matches the pattern from p on.
  bool can[kMost + 2][kMost + 2] = {};
  can[text.size()][pattern.size()] = true;
  for (std::size_t t = text.size() + 1; t-- > 0;) {
    for (std::size_t p = pattern.size(); p-- > 0;) {
      // Past its end the text has a NUL, which the pattern has not.
      if (pattern[p] == text[t] || (pattern[p] == '?' && t < text.size()))
        can[t][p] = can[t + 1][p + 1];
      else if (pattern[p] == '*')
        can[t][p] = can[t][p + 1] || can[t + 1][p] || can[t + 1][p + 1];
    }
  }
  return can[0][0];
}

}  // namespace

// Few different characters, so that they meet.
void fuzz_one(Input input) {
  std::string text, pattern;
  const std::size_t size = input.byte() % (kMost + 1);
  for (char c : input.take(size)) text += "ab*?"[c & 3];
  for (char c : input.take(kMost)) pattern += "ab*?"[c & 3];
  REQUIRE(wildcard_match(text.c_str(), pattern.c_str()) ==
          (matches(text, pattern) ? 1 : 0));
  const std::string any(input.bytes);
  REQUIRE(wildcard_match(any.c_str(), any.c_str()) == 1);
}

void make_seeds() {
  add_seed("\6aababab*b*");
  add_seed("\3a*b*?*b**");
}

}  // namespace velprobe
