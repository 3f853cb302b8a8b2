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
  error =
      regex_match(&regex, text, spans.data(), spans.size(), match_flags, begin);
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
      bytes +=
          static_cast<char>(std::stoi(field.substr(i + 1, 2), nullptr, 16));
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

// What the definition gives for a random expression and text, and what the
// module gives; the expression by itself in where.
struct Comparison {
  std::string expected, got, where;
};

std::string print(const definition::Captures& spans) {
  std::string all;
  for (const RegexSpan& span : spans) all += print(span);
  return all;
}

class RandomRegex {
 public:
  RandomRegex(std::mt19937& random, bool backrefs) : random_(random) {
    maker_.next = [this](unsigned n) { return below(n); };
    maker_.flags = below(16) & (kRegexIgnoreCase | kRegexNewline);
    if (!backrefs && below(4) != 0) maker_.flags |= kRegexExtended;
    maker_.backrefs = backrefs;
    root_ = maker_.alternatives();
    pattern_ = maker_.print(root_);
  }
  ~RandomRegex() { regex_free(&regex_); }

  // Every other expression has next to no memory for states. False when
  // counts within counts need more than that.
  bool compile() {
    RegexLimits limits;
    limited_ = below(2) == 0;
    if (limited_) limits.memory = 4000 + below(20000);
    const int error = regex_compile(&regex_, pattern_, maker_.flags, limits);
    EXPECT_TRUE(error == 0 || error == kRegexNoSpace) << pattern_;
    return error == 0;
  }

  // False when the definition takes too long, or references had no memory.
  bool compare(Comparison& out) {
    std::string text;
    for (unsigned n = below(9); n > 0; --n) text += "aaabbbcB-\n"[below(10)];
    const auto size = static_cast<unsigned>(text.size());
    const std::size_t begin = below(3) == 0 ? below(size + 1) : 0;
    definition::Matcher matcher{text, maker_.flags, below(4), 200000};
    definition::Captures spans(static_cast<std::size_t>(maker_.groups) + 1);
    const bool matches = matcher.search(root_, begin, spans);
    out.expected = matches ? print(spans) : "REG_NOMATCH";
    const int result = regex_match(&regex_, text, spans.data(), spans.size(),
                                   matcher.match_flags, begin);
    out.got = result == 0 ? print(spans) : regex_error_name(result);
    out.where = pattern_ + " on '" + text + "' from " + std::to_string(begin) +
                ", flags " + std::to_string(maker_.flags) + " and " +
                std::to_string(matcher.match_flags);
    const bool starved = limited_ && result == kRegexNoSpace;
    return matcher.steps >= 0 && !starved;
  }

 private:
  unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }

  std::mt19937& random_;
  definition::Maker maker_;
  definition::Part root_;
  std::string pattern_;
  Regex regex_;
  bool limited_ = false;
};

class RegexAgainstDefinition : public testing::TestWithParam<bool> {};

TEST_P(RegexAgainstDefinition, Agrees) {
  std::mt19937 random(20261121);
  int compared = 0;
  for (int i = 0; i < 3000; ++i) {
    RandomRegex regex(random, GetParam());
    for (int j = regex.compile() ? 6 : 0; j > 0; --j) {
      Comparison comparison;
      if (!regex.compare(comparison)) continue;
      ASSERT_EQ(comparison.got, comparison.expected) << comparison.where;
      ++compared;
    }
  }
  EXPECT_GT(compared, 10000);
}
INSTANTIATE_TEST_SUITE_P(BackReferences, RegexAgainstDefinition,
                         testing::Bool());

// What the rows do not settle: pattern, text and outcome.
TEST(RegexTest, FollowsTheRulings) {
  const struct {
    const char* letters;
    std::string pattern, text;
    const char* expected;
  } kRows[] = {
      // Empty patterns, branches and groups match the null string.
      {"E", "", "a", "(0,0)"},
      {"E", "(|a)b", "ab", "(0,2)(0,1)"},
      {"E", "a||b", "b", "(0,1)"},
      {"B", "\\(\\)a", "a", "(0,1)(0,0)"},
      // Repetitions of repetitions apply one after the other.
      {"E", "a*{2}b", "aab", "(0,3)"},
      {"E", "(a)*?", "aa", "(0,2)(1,2)"},
      {"E", "(a){2}{2}", "aaaa", "(0,4)(3,4)"},
      // What has nothing to repeat; what is then no operator.
      {"E", "*a", "", "REG_BADRPT"},
      {"E", "a|*b", "", "REG_BADRPT"},
      {"E", "(+a)", "", "REG_BADRPT"},
      {"E", "^*", "", "REG_BADRPT"},
      {"E", "[[:<:]]{2}", "", "REG_BADRPT"},
      {"E", "{1}", "", "REG_BADRPT"},
      {"B", "*a\\(*b\\)^*", "*a*b^", "(0,5)(2,4)"},
      {"B", "^*a\\|*", "*a", "(0,2)"},
      {"B", "\\{1\\}", "", "REG_BADRPT"},
      {"B", "a\\|\\+", "", "REG_BADRPT"},
      // Intervals.
      {"E", "a{,3}", "", "REG_BADBR"},
      {"E", "a{x{2}", "a{xx", "(0,4)"},
      {"E", "a{", "a{", "(0,2)"},
      {"E", "a{1", "", "REG_EBRACE"},
      {"E", "a{2,1}", "", "REG_BADBR"},
      {"E", "a{32768}", "", "REG_BADBR"},
      {"E", "(a){32767}", "a", "NOMATCH"},
      {"E", "(a){0}b", "ab", "(1,2)(-,-)"},
      {"B", "a\\{1", "", "REG_EBRACE"},
      {"B", "a\\{1}\\}", "", "REG_BADBR"},
      {"B", "a{2}\\{2\\}", "a{2}}", "(0,5)"},
      // Parentheses and operators as literals.
      {"E", "a)*", "a))", "(0,3)"},
      {"E", "(a", "", "REG_EPAREN"},
      {"B", "a\\)", "", "REG_EPAREN"},
      {"B", "(a|b+)?", "(a|b+)?", "(0,7)"},
      {"B", "a\\?b\\+\\|c", "abb", "(0,3)"},
      // Escapes.
      {"E", "\\]\\}\\-\\ ", "]}- ", "(0,4)"},
      {"E", "\\d", "", "REG_BADPAT"},
      {"E", "\\<a", "", "REG_BADPAT"},
      {"E", "(a)\\1", "", "REG_ESUBREG"},
      {"E", "a\\", "", "REG_EESCAPE"},
      {"B", "\\(a\\1\\)", "", "REG_ESUBREG"},
      {"B", "\\0", "", "REG_BADPAT"},
      // Anchors by place in basic notation, anywhere in extended.
      {"B", "a^b$c", "a^b$c", "(0,5)"},
      {"B", "\\(^a$\\)\\|^b", "b", "(0,1)(-,-)"},
      {"B", "^^$$", "^$", "(0,2)"},
      {"E", "a^b", "a^b", "NOMATCH"},
      // Case: closed over first, negated then.
      {"Ei", "[^a]", "aAb", "(2,3)"},
      {"Ei", "[X-b]", "B", "(0,1)"},
      {"Ei", "[[:upper:]]+k", "xyK", "(0,3)"},
      {"Bi", "\\(a[b]\\)\\1", "abAB", "(0,4)(0,2)"},
      // Brackets.
      {"E", "[]-a]+", "]_a", "(0,3)"},
      {"E", "[--/]+", "-./", "(0,3)"},
      {"E", "[%--]+", "%,-", "(0,3)"},
      {"E", "[[.].][.-.]-0]+", "]-./0", "(0,5)"},
      {"E", "[\\]]", "\\]", "(0,2)"},
      {"E", "[a-c-e]", "", "REG_ERANGE"},
      {"E", "[c-a]", "", "REG_ERANGE"},
      {"E", "[a-[:digit:]]", "", "REG_ERANGE"},
      {"E", "[[:digit:]-a]", "", "REG_ERANGE"},
      {"E", "[[=a=]-c]", "", "REG_ERANGE"},
      {"E", "[[=a=]]", "a", "(0,1)"},
      {"E", "[[.ab.]]", "", "REG_ECOLLATE"},
      {"E", "[[:foo:]]", "", "REG_ECTYPE"},
      {"E", "[a[:<:]]", "", "REG_ECTYPE"},
      {"E", "[[:alpha:", "", "REG_EBRACK"},
      {"E", "[]a", "", "REG_EBRACK"},
      // Any byte, zero and above 127 too.
      {"E", std::string("a\0[\x80-\xFF]", 7), std::string("a\0\xE9", 3),
       "(0,3)"},
      {"E", "[[:alpha:]]", "\xC4", "NOMATCH"},
      // Newlines.
      {"En", "^a.c$", "a\nc\nabc", "(4,7)"},
      {"En", "a[^b]c|a[\nx]d", "a\nca\nd", "(3,6)"},
      {"E", "^b", "a\nb", "NOMATCH"},
      // What is around a part is as long as it can be before the part is.
      {"E", "(a*(ab)?)(b*)x*", "aab", "(0,3)(0,3)(1,3)(3,3)"},
      {"E", "(x){0}a*(ab)?(b*)x*", "aab", "(0,3)(-,-)(-,-)(2,3)"},
      // Words.
      {"E", "[[:<:]]a_1[[:>:]]", "ba_1 a_1.", "(5,8)"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(outcome(row.letters, row.pattern, row.text), row.expected)
        << row.letters << " " << row.pattern;
  }
}

TEST(RegexTest, LooksBackFromItsBegin) {
  EXPECT_EQ(outcome("E", "^a", "aa", 0, 1), "NOMATCH");
  EXPECT_EQ(outcome("En", "^a", "\na", 0, 1), "(1,2)");
  EXPECT_EQ(outcome("En", "^a", "\na", kRegexNotLineBegin, 1), "(1,2)");
  EXPECT_EQ(outcome("E", "^a", "a", kRegexNotLineBegin), "NOMATCH");
  EXPECT_EQ(outcome("E", "a$", "a", kRegexNotLineEnd), "NOMATCH");
  EXPECT_EQ(outcome("E", "[[:<:]]b", "ab b", 0, 1), "(3,4)");
  EXPECT_EQ(outcome("E", "a*", "aa", 0, 2), "(2,2)");
}

TEST(RegexTest, TellsWhereAPatternFails) {
  const struct {
    const char* pattern;
    std::size_t offset;
  } kRows[] = {{"ab(c", 2},  {"a[b", 1},  {"ab{2,1}", 2},
               {"abc\\", 3}, {"ab|*", 3}, {"x[a[:foo:]]", 3}};
  for (const auto& row : kRows) {
    Regex regex;
    EXPECT_NE(regex_compile(&regex, row.pattern, kRegexExtended), 0);
    EXPECT_EQ(regex.error_offset, row.offset) << row.pattern;
    EXPECT_EQ(regex.program, nullptr);
    regex_free(&regex);
  }
}

TEST(RegexTest, FillsAsManySpansAsAsked) {
  Regex regex;
  ASSERT_EQ(regex_compile(&regex, "(a)(b)?", kRegexExtended), 0);
  EXPECT_EQ(regex.num_groups, 2U);
  RegexSpan spans[5] = {{7, 7}, {7, 7}, {7, 7}, {7, 7}, {7, 7}};
  EXPECT_EQ(regex_match(&regex, "ccc", spans, 5, 0), kRegexNoMatch);
  EXPECT_EQ(spans[0].begin, 7);
  EXPECT_EQ(regex_match(&regex, "a", spans, 2, 0), 0);
  EXPECT_EQ(print(spans[1]) + print(spans[2]), "(0,1)(7,7)");
  EXPECT_EQ(regex_match(&regex, "a", spans, 5, 0), 0);
  EXPECT_EQ(print(spans[2]) + print(spans[4]), "(-,-)(-,-)");
  EXPECT_EQ(regex_match(&regex, "a", nullptr, 0, 0), 0);
  regex_free(&regex);
  ASSERT_EQ(regex_compile(&regex, "(a)", kRegexExtended | kRegexNoSpans), 0);
  EXPECT_EQ(regex.num_groups, 1U);
  spans[0] = {7, 7};
  EXPECT_EQ(regex_match(&regex, "a", spans, 5, 0), 0);
  EXPECT_EQ(spans[0].begin, 7);
  regex_free(&regex);
}

TEST(RegexTest, RefusesArgumentsWithoutSense) {
  Regex regex;
  EXPECT_EQ(regex_compile(nullptr, "a", 0), kRegexBadArgument);
  EXPECT_EQ(regex_compile(&regex, "a", 16), kRegexBadArgument);
  EXPECT_EQ(regex_match(&regex, "a", nullptr, 0, 0), kRegexBadArgument);
  ASSERT_EQ(regex_compile(&regex, "", 0), 0);
  EXPECT_EQ(regex_match(&regex, "a", nullptr, 1, 0), kRegexBadArgument);
  EXPECT_EQ(regex_match(&regex, "a", nullptr, 0, 4), kRegexBadArgument);
  EXPECT_EQ(regex_match(&regex, "a", nullptr, 0, 0, 2), kRegexBadArgument);
  EXPECT_EQ(regex_match(&regex, {}, nullptr, 0, 0), 0);
  regex_free(&regex);
  regex_free(&regex);
  regex_free(nullptr);
}

TEST(RegexTest, NamesItsErrors) {
  EXPECT_STREQ(regex_error_name(1), "REG_NOMATCH");
  EXPECT_STREQ(regex_error_name(14), "REG_INVARG");
  EXPECT_STREQ(regex_error_name(0xbeef), "REG_0xbeef");
  EXPECT_STREQ(regex_error_name(-1), "REG_0xffffffff");
  EXPECT_STREQ(regex_error_text(15), "No such error");
  char text[8] = "";
  EXPECT_EQ(regex_error(kRegexBadBracket, text, sizeof text), 20U);
  EXPECT_STREQ(text, "A [ is ");
  EXPECT_EQ(regex_error(kRegexBadBracket, nullptr, 0), 20U);
}

std::uint64_t steps_of(const std::string& letters, const std::string& pattern,
                       const std::string& text,
                       std::size_t* out_size = nullptr) {
  Regex regex;
  EXPECT_EQ(regex_compile(&regex, pattern, flags_of(letters)), 0) << pattern;
  std::vector<RegexSpan> spans(regex.num_groups + 1);
  // The second match finds its states made.
  for (int i = 0; i < 2; ++i) {
    const int result = regex_match(&regex, text, spans.data(), spans.size(), 0);
    EXPECT_TRUE(result == 0 || result == kRegexNoMatch) << pattern;
  }
  const std::uint64_t steps = last_match_steps(regex);
  if (out_size != nullptr) *out_size = regex.program->code.size();
  regex_free(&regex);
  return steps;
}

std::string times(std::string_view part, std::size_t count) {
  std::string all;
  while (count-- > 0) all += part;
  return all;
}

TEST(RegexTest, TakesStepsByTheLengthOfTheText) {
  const struct {
    const char* letters;
    const char* pattern;
    const char* text;
  } kRows[] = {
      {"E", "x*y|z", "x"},           // restarts
      {"E", "x*[yz]w", "xxxxxxxy"},  // restarts that get far
      {"E", "(a|a*b)*", "a"},        // parts run beyond their cut
      {"E", "((a|a*b)(c?|a*d))*", "a"},
      {"E", "((a)|(aa)|(aaa))*", "a"},
      {"E", "(x+x+)+y|z", "x"},
      {"E", "((((a*)*)*)*)*(b|())", "a"},
      {"E", "(((a?){0,9}){0,9}){0,9}a*", "a"},  // null counts
      {"E", "(a*)(a*)(a*)(a*)(a|b)", "a"},
      {"E", "(^a?|b){2,9}(a|b)*", "ab"},
      {"E", "(.*)(.*)(.*)[xy]", "ab"},
      {"E", "([a-z]+) ([a-z]+|[a-z ]+)*!?", "word "},
      {"B", "\\([a-z]\\)\\1\\1", "aab"},
  };
  constexpr std::size_t kLength = 1000;
  for (const auto& row : kRows) {
    std::size_t size = 0;
    const auto once =
        steps_of(row.letters, row.pattern, times(row.text, kLength), &size);
    const auto twice =
        steps_of(row.letters, row.pattern, times(row.text, 2 * kLength));
    EXPECT_LT(twice, 2 * once + once / 4 + 100) << row.pattern;
    EXPECT_LT(once, 4 * size * kLength * std::strlen(row.text)) << row.pattern;
  }
}

// Too many states to keep: sets are simulated, for the groups as well.
TEST(RegexTest, TakesNoMoreStepsWhereStatesDoNotHelp) {
  std::mt19937 random(1);
  std::string text;
  while (text.size() < 40000) text += "ab"[random() % 2];
  for (const char* pattern :
       {"(a|b)*a(a|b){40}(c|(a))", "((a|b)*)(a(a|b){40})(c|a)(.*)"}) {
    const auto once = steps_of("E", pattern, text.substr(0, 20000));
    const auto twice = steps_of("E", pattern, text);
    EXPECT_LT(twice, 2 * once + once / 2) << pattern;
    EXPECT_LT(twice, 1500 * text.size()) << pattern;
  }
}

TEST(RegexTest, KeepsItsLimits) {
  const std::string deep = times("(", 100000) + times(")*", 100000);
  EXPECT_EQ(outcome("E", deep, "a"), "REG_ESPACE");
  EXPECT_EQ(outcome("E", times("(", 1000) + times(")", 1000), "").size(),
            1001 * 5U);
  EXPECT_EQ(outcome("E", times("(", 1001) + times(")", 1001), ""),
            "REG_ESPACE");
  RegexLimits wide;
  wide.nesting = 100000;
  wide.memory = 64 << 20;
  EXPECT_EQ(outcome("E", deep, "a", 0, 0, wide).size(), 100001 * 5U);
  EXPECT_EQ(outcome("E", "a" + times("*", 100000), "aa"), "(0,2)");
  EXPECT_EQ(outcome("E", "(((((a{0,255}){0,255}){0,255}){0,255}){0,255})", ""),
            "REG_ESPACE");
  EXPECT_EQ(outcome("E", "(((((){0,255}){0,255}){0,255}){0,255})", ""),
            "(0,0)(0,0)(0,0)(0,0)(0,0)(0,0)");
  EXPECT_EQ(outcome("E", "((a|b)c?){255}", times("ac", 255)),
            "(0,510)(508,510)(508,509)");
  const std::string many =
      times("\\(a*\\)*", 9) + "b\\1\\2\\3\\4\\5\\6\\7\\8\\9";
  EXPECT_EQ(outcome("B", many, times("a", 60) + "b" + times("a", 59)),
            "REG_ESPACE");
}

TEST(RegexTest, ServesManyThreadsAtOnce) {
  Regex regex;
  ASSERT_EQ(regex_compile(&regex, "(a|ab)(c|bcd)(d*)|(x*)y", kRegexExtended),
            0);
  std::vector<std::thread> threads;
  std::atomic<int> wrong = 0;
  for (unsigned seed = 0; seed < 8; ++seed) {
    threads.emplace_back([&, seed] {
      for (unsigned i = 0; i < 400; ++i) {
        const std::size_t n = (seed * 31 + i) % 50;
        RegexSpan spans[5];
        const bool good =
            regex_match(&regex, times("-", n) + "abcdd", spans, 5, 0) == 0 &&
            spans[2].end == static_cast<std::ptrdiff_t>(n) + 3 &&
            regex_match(&regex, times("x", n), spans, 5, 0) == kRegexNoMatch;
        if (!good) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  regex_free(&regex);
}

}  // namespace
}  // namespace velprobe
