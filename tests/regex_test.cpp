// Regular expressions: the public rows, the rulings, and random expressions
// against the definition.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "modules/Regex/regex.h"
#include "modules/Regex/regex_search.h"
#include "support/regex_definition.h"
#include "support/vectors.h"

namespace velprobe {
namespace {

unsigned flags_of(const std::string& letters) {
  unsigned flags = 0;
  for (char letter : letters) {
    if (letter == 'E') flags |= kRegexExtended;
    if (letter == 'i') flags |= kRegexIgnoreCase;
    if (letter == 'n') flags |= kRegexNewline;
    if (letter == 's') flags |= kRegexNoSpans;
  }
  return flags;
}

std::string print(const RegexSpan& span) {
  if (span.begin < 0) return "(-,-)";
  return "(" + std::to_string(span.begin) + "," + std::to_string(span.end) +
         ")";
}

// What matching gives, as the rows write it.
std::string outcome(const std::string& letters, const std::string& pattern,
                    const std::string& text, unsigned match_flags = 0,
                    std::size_t begin = 0, const RegexLimits& limits = {}) {
  Regex regex;
  int error = regex_compile(&regex, pattern, flags_of(letters), limits);
  if (error != 0) return regex_error_name(error);
  std::vector<RegexSpan> spans(regex.num_groups + 1);
  error = regex_match(&regex, text, spans.data(), spans.size(), match_flags,
                      begin);
  regex_free(&regex);
  if (error == kRegexNoMatch) return "NOMATCH";
  if (error != 0) return regex_error_name(error);
  std::string all;
  for (const RegexSpan& span : spans) all += print(span);
  return all;
}

std::string unescape(const std::string& field) {
  std::string bytes;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '%') {
      bytes += field[i];
    } else {
      bytes += static_cast<char>(std::stoi(field.substr(i + 1, 2), nullptr, 16));
      i += 2;
    }
  }
  return bytes;
}

TEST(RegexTest, MatchesThePublicRows) {
  SKIP_WITHOUT_VECTORS();
  int rows = 0;
  for (const char* file : {"att-basic", "att-rightassoc", "kuklewicz-rules",
                           "kuklewicz-more", "re2c-basic"}) {
    std::ifstream stream(std::string(VELPROBE_VECTORS) + "/regex/" + file +
                         ".tsv");
    for (std::string line; std::getline(stream, line); ++rows) {
      std::string fields[4];
      std::size_t from = 0;
      for (std::string& field : fields) {
        const std::size_t tab = std::min(line.find('\t', from), line.size());
        field = line.substr(from, tab - from);
        from = tab + 1;
      }
      EXPECT_EQ(outcome(fields[0], unescape(fields[1]), unescape(fields[2])),
                fields[3])
          << file << ": " << line;
    }
  }
  EXPECT_EQ(rows, 402);
}

void compare_random(unsigned seed, int rounds, bool backrefs) {
  std::mt19937 random(seed);
  int compared = 0;
  for (int i = 0; i < rounds; ++i) {
    definition::Maker maker;
    maker.next = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    maker.flags = (random() & kRegexIgnoreCase) | (random() & kRegexNewline);
    if (!backrefs && random() % 4 != 0) maker.flags |= kRegexExtended;
    maker.backrefs = backrefs;
    const definition::Part root = maker.alternatives();
    const std::string pattern = maker.print(root);
    const auto num_spans = static_cast<std::size_t>(maker.groups) + 1;
    Regex regex;
    const int error = regex_compile(&regex, pattern, maker.flags);
    if (error == kRegexNoSpace) continue;  // counts within counts
    ASSERT_EQ(error, 0) << pattern << " " << regex_error_name(error);
    for (int j = 0; j < 6; ++j) {
      std::string text;
      for (auto n = random() % 9; n > 0; --n) text += "aaabbbcB-\n"[random() % 10];
      definition::Matcher matcher{text, maker.flags,
                                  static_cast<unsigned>(random() % 4), 200000};
      const std::size_t begin = random() % 3 == 0 ? random() % (text.size() + 1) : 0;
      definition::Captures expected(num_spans);
      const bool matches = matcher.search(root, begin, expected);
      if (matcher.steps < 0) continue;
      ++compared;
      definition::Captures spans(num_spans);
      const int result =
          regex_match(&regex, text, spans.data(), num_spans,
                      matcher.match_flags, begin);
      std::string wanted = "NOMATCH", got = regex_error_name(result);
      if (result == kRegexNoMatch) got = "NOMATCH";
      if (result == 0) got = "";
      if (matches) wanted = "";
      for (const RegexSpan& span : expected) if (matches) wanted += print(span);
      for (const RegexSpan& span : spans) if (result == 0) got += print(span);
      ASSERT_EQ(got, wanted) << (maker.extended() ? "E" : "B") << maker.flags << " " << matcher.match_flags
                             << " from " << begin << "\n" << pattern << "\n" << text;
    }
    regex_free(&regex);
  }
  EXPECT_GT(compared, rounds);
}

TEST(RegexTest, AgreesWithTheDefinition) { compare_random(20261121, atoi(getenv("ROUNDS")?getenv("ROUNDS"):"3000"), false); }

TEST(RegexTest, AgreesWithTheDefinitionOnBackReferences) { compare_random(872, atoi(getenv("ROUNDS")?getenv("ROUNDS"):"3000"), true); }

}  // namespace
}  // namespace velprobe
