// Regular expressions: any bytes as a pattern, with plenty of memory for states
// and with next to none; and random expressions against the definition and, for
// the span of the whole match, against another engine.
#include "../tests/support/regex_definition.h"
#include "fuzz.h"
#ifdef VELPROBE_HAVE_RE2
#include <re2/re2.h>
#endif

namespace velprobe {
namespace {

using Spans = std::vector<RegexSpan>;

bool is_within(const RegexSpan& span, std::size_t size) {
  if (span.begin < 0) return span.begin == -1 && span.end == -1;
  return span.begin <= span.end && span.end <= static_cast<long>(size);
}

bool equal(const Spans& a, const Spans& b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].begin != b[i].begin || a[i].end != b[i].end) return false;
  }
  return true;
}

// Matches with a limit of memory; an outcome for want of it says nothing.
int match_within(std::string_view pattern, unsigned flags, unsigned match_flags,
                 std::string_view text, std::size_t begin, std::size_t memory,
                 Spans& spans) {
  RegexOwner regex(new Regex);
  const RegexLimits limits{memory, 100, 20000};
  int result = regex_compile(regex.get(), pattern, flags, limits);
  REQUIRE(regex->error_offset <= pattern.size());
  if (result != 0) return result;
  spans.resize(regex->num_groups + 1);
  result = regex_match(regex.get(), text, spans.data(), spans.size(),
                       match_flags, begin);
  const int answer =
      regex_match(regex.get(), text, nullptr, 0, match_flags, begin);
  REQUIRE(result == kRegexNoSpace || answer == kRegexNoSpace ||
          answer == result);
  for (const RegexSpan& span : spans) {
    REQUIRE(result != 0 || is_within(span, text.size()));
  }
  return result;
}

void match_any_bytes(Input input) {
  const unsigned flags = input.byte() % 16U;
  const unsigned match_flags = input.byte() % 4U;
  const std::string_view pattern = input.take(input.byte());
  const std::string_view text = input.bytes.substr(0, 2000);
  const std::size_t begin = text.empty() ? 0 : flags * 7 % text.size();
  Spans plenty, little;
  const int result =
      match_within(pattern, flags, match_flags, text, begin, 1 << 20, plenty);
  const int again =
      match_within(pattern, flags, match_flags, text, begin, 6000, little);
  if (result == kRegexNoSpace || again == kRegexNoSpace) return;
  REQUIRE(result == again);
  REQUIRE(result != 0 || equal(plenty, little));
}

#ifdef VELPROBE_HAVE_RE2
// It has other assertions, and no exact groups.
void compare_with_re2(const definition::Maker& maker,
                      const std::string& pattern, const std::string& text,
                      bool matches, const RegexSpan& span) {
  if (!maker.extended() || (maker.flags & kRegexNewline) ||
      pattern.find_first_of("^$") != std::string::npos ||
      pattern.find("[[:<") != std::string::npos ||
      pattern.find("[[:>") != std::string::npos) {
    return;
  }
  re2::RE2::Options options(re2::RE2::Quiet);
  options.set_longest_match(true);
  options.set_encoding(re2::RE2::Options::EncodingLatin1);
  options.set_case_sensitive(!(maker.flags & kRegexIgnoreCase));
  options.set_dot_nl(true);
  const re2::RE2 regex(pattern, options);
  if (!regex.ok()) return;
  re2::StringPiece whole;
  REQUIRE(regex.Match(text, 0, text.size(), re2::RE2::UNANCHORED, &whole, 1) ==
          matches);
  REQUIRE(!matches ||
          (whole.data() - text.data() == span.begin &&
           static_cast<long>(whole.size()) == span.end - span.begin));
}
#endif

void compare_with_definition(Input input) {
  definition::Maker maker;
  maker.flags = input.byte() % 16U & ~kRegexNoSpans;
  maker.backrefs = !maker.extended();
  const unsigned match_flags = input.byte() % 4U;
  std::string text;
  for (unsigned n = input.byte() % 9U; n > 0; --n) {
    text += "aaabbbcB-\n"[input.byte() % 10];
  }
  maker.next = [&](unsigned n) { return input.byte() % n; };
  const definition::Part root = maker.alternatives();
  const std::string pattern = maker.print(root);
  definition::Matcher matcher{text, maker.flags, match_flags, 30000};
  Spans expected(static_cast<std::size_t>(maker.groups) + 1);
  const bool matches = matcher.search(root, 0, expected);
  Spans spans;
  const int result =
      match_within(pattern, maker.flags, match_flags, text, 0, 1 << 20, spans);
  if (matcher.steps < 0 || result == kRegexNoSpace) return;
  REQUIRE(result == (matches ? 0 : kRegexNoMatch));
  REQUIRE(!matches || equal(spans, expected));
#ifdef VELPROBE_HAVE_RE2
  if (match_flags == 0) {
    compare_with_re2(maker, pattern, text, matches, expected[0]);
  }
#endif
}

}  // namespace

void fuzz_one(Input input) {
  if (input.byte() % 2 == 0) {
    match_any_bytes(input);
  } else {
    compare_with_definition(input);
  }
}

void make_seeds() {
  for (const std::string pattern :
       {"(a|ab)(c|bcd)(d*)", "((a)|(aa)|(aaa))*", "(^a?|b){2,9}[[:<:]]c$",
        "[]-a[:alpha:]]+[^x-z[.-.]]", "\\(a*\\)*b\\1\\{0,3\\}", "((a*)+|b?)*?",
        "\\([a-c]\\)\\1\\|x*y", "(.*)(.*),(([0-9]{1,3}\\.){3})"}) {
    for (char flags = 0; flags < 16; flags += 5) {
      add_seed(
          std::string{'\0', flags, '\0', static_cast<char>(pattern.size())} +
          pattern + "abcbcdaaabca,1.2.3.xy");
    }
  }
  for (char i = 0; i < 20; ++i) {
    std::string seed = {'\1', i, i, '\x8'};
    for (int j = 0; j < 60; ++j) seed += static_cast<char>(j * (i + 3) * 7);
    add_seed(seed);
  }
}

}  // namespace velprobe
