// Regular expressions beside other engines: every match in a text, in bytes a
// second, or the time for a line; groups where the row's name says so. Names
// are row/engine; an engine that cannot run a row is left out of it.
#include <benchmark/benchmark.h>
#include <regex.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "modules/Regex/regex.h"
#ifdef VELPROBE_HAVE_RE2
#include <re2/re2.h>
#endif
#ifdef VELPROBE_HAVE_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#endif

namespace velprobe {
namespace {

struct Row {
  std::string name;
  std::string pattern;
  unsigned flags = kRegexExtended;
  std::size_t num_spans = 1;
};

// Engine is one way to run a row. find looks for a match from begin on and
// sets its span; it is false without one.
struct Engine {
  virtual ~Engine() = default;
  virtual bool find(std::string_view text, std::size_t begin,
                    RegexSpan* span) = 0;
};
using EnginePtr = std::unique_ptr<Engine>;

struct Velprobe : Engine {
  Regex regex;
  std::vector<RegexSpan> spans;

  static EnginePtr make(const Row& row) {
    auto engine = std::make_unique<Velprobe>();
    if (regex_compile(&engine->regex, row.pattern, row.flags) != 0) return {};
    engine->spans.resize(row.num_spans);
    return engine;
  }
  ~Velprobe() override { regex_free(&regex); }
  bool find(std::string_view text, std::size_t begin,
            RegexSpan* span) override {
    if (regex_match(&regex, text, spans.data(), spans.size(), 0, begin) != 0) {
      return false;
    }
    if (!spans.empty()) *span = spans[0];
    return true;
  }
};

struct Glibc : Engine {
  regex_t regex = {};
  bool good = false;
  std::vector<regmatch_t> spans;

  static EnginePtr make(const Row& row) {
    auto engine = std::make_unique<Glibc>();
    const int flags = (row.flags & kRegexExtended ? REG_EXTENDED : 0) |
                      (row.flags & kRegexIgnoreCase ? REG_ICASE : 0) |
                      (row.num_spans == 0 ? REG_NOSUB : 0);
    std::string pattern = row.pattern;
    for (std::size_t at; (at = pattern.find("[[:<:]]")) != std::string::npos;) {
      pattern.replace(at, 7, "\\<");
    }
    for (std::size_t at; (at = pattern.find("[[:>:]]")) != std::string::npos;) {
      pattern.replace(at, 7, "\\>");
    }
    engine->good = regcomp(&engine->regex, pattern.c_str(), flags) == 0;
    if (!engine->good) return {};
    engine->spans.resize(std::max<std::size_t>(row.num_spans, 1));
    return engine;
  }
  ~Glibc() override {
    if (good) regfree(&regex);
  }
  bool find(std::string_view text, std::size_t begin,
            RegexSpan* span) override {
    spans[0] = {static_cast<regoff_t>(begin),
                static_cast<regoff_t>(text.size())};
    if (regexec(&regex, text.data(), spans.size(), spans.data(),
                REG_STARTEND | (begin != 0 ? REG_NOTBOL : 0)) != 0) {
      return false;
    }
    *span = {spans[0].rm_so, spans[0].rm_eo};
    return true;
  }
};

// TRE's header has macros of the same names.
#undef REG_EXTENDED
#undef REG_ICASE
#undef REG_NEWLINE
#undef REG_NOSUB
#undef REG_NOTBOL
#undef REG_NOTEOL
#undef RE_DUP_MAX

}  // namespace
}  // namespace velprobe

#ifdef VELPROBE_HAVE_TRE
#include <wchar.h>
namespace tre {  // it has the C library's names
#include <tre/tre.h>
}
#endif

namespace velprobe {
namespace {

#ifdef VELPROBE_HAVE_TRE
struct Tre : Engine {
  tre::regex_t regex = {};
  bool good = false;
  std::vector<tre::regmatch_t> spans;

  static EnginePtr make(const Row& row) {
    auto engine = std::make_unique<Tre>();
    const int flags = (row.flags & kRegexExtended ? REG_EXTENDED : 0) |
                      (row.flags & kRegexIgnoreCase ? REG_ICASE : 0) |
                      (row.num_spans == 0 ? REG_NOSUB : 0);
    engine->good = tre::tre_regncomp(&engine->regex, row.pattern.data(),
                                     row.pattern.size(), flags) == 0;
    if (!engine->good) return {};
    engine->spans.resize(row.num_spans);
    return engine;
  }
  ~Tre() override {
    if (good) tre::tre_regfree(&regex);
  }
  bool find(std::string_view text, std::size_t begin,
            RegexSpan* span) override {
    if (tre::tre_regnexec(&regex, text.data() + begin, text.size() - begin,
                          spans.size(), spans.data(),
                          begin != 0 ? REG_NOTBOL : 0) != 0) {
      return false;
    }
    if (spans.empty()) return true;
    *span = {static_cast<std::ptrdiff_t>(begin) + spans[0].rm_so,
             static_cast<std::ptrdiff_t>(begin) + spans[0].rm_eo};
    return true;
  }
};
#endif

[[maybe_unused]] std::string with_word_edges(const std::string& pattern) {
  std::string result = pattern;
  for (const char* edge : {"[[:<:]]", "[[:>:]]"}) {
    for (std::size_t at; (at = result.find(edge)) != std::string::npos;) {
      result.replace(at, 7, "\\b");
    }
  }
  return result;
}

#ifdef VELPROBE_HAVE_RE2
struct Re2 : Engine {
  std::unique_ptr<re2::RE2> regex;
  std::vector<re2::StringPiece> spans;

  static EnginePtr make(const Row& row) {
    if (!(row.flags & kRegexExtended)) return {};
    auto engine = std::make_unique<Re2>();
    re2::RE2::Options options(re2::RE2::Quiet);
    options.set_longest_match(true);
    options.set_encoding(re2::RE2::Options::EncodingLatin1);
    options.set_case_sensitive(!(row.flags & kRegexIgnoreCase));
    options.set_never_capture(row.num_spans <= 1);
    options.set_dot_nl(true);
    engine->regex =
        std::make_unique<re2::RE2>(with_word_edges(row.pattern), options);
    if (!engine->regex->ok()) return {};
    engine->spans.resize(row.num_spans);
    return engine;
  }
  bool find(std::string_view text, std::size_t begin,
            RegexSpan* span) override {
    if (!regex->Match({text.data(), text.size()}, begin, text.size(),
                      re2::RE2::UNANCHORED, spans.data(),
                      static_cast<int>(spans.size()))) {
      return false;
    }
    if (spans.empty()) return true;
    const std::ptrdiff_t at = spans[0].data() - text.data();
    *span = {at, at + static_cast<std::ptrdiff_t>(spans[0].size())};
    return true;
  }
};
#endif

#ifdef VELPROBE_HAVE_PCRE2
struct Pcre2 : Engine {
  pcre2_code* regex = nullptr;
  pcre2_match_data* data = nullptr;

  static EnginePtr make(const Row& row) {
    auto engine = std::make_unique<Pcre2>();
    std::string pattern = with_word_edges(row.pattern);
    if (!(row.flags & kRegexExtended)) pattern = "([a-z])\\1";
    int error = 0;
    std::size_t offset = 0;
    engine->regex = pcre2_compile(
        reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
        PCRE2_DOTALL | (row.flags & kRegexIgnoreCase ? PCRE2_CASELESS : 0U),
        &error, &offset, nullptr);
    if (engine->regex == nullptr) return {};
    pcre2_jit_compile(engine->regex, PCRE2_JIT_COMPLETE);
    engine->data = pcre2_match_data_create_from_pattern(engine->regex, nullptr);
    return engine;
  }
  ~Pcre2() override {
    pcre2_match_data_free(data);
    pcre2_code_free(regex);
  }
  bool find(std::string_view text, std::size_t begin,
            RegexSpan* span) override {
    if (pcre2_match(regex, reinterpret_cast<PCRE2_SPTR>(text.data()),
                    text.size(), begin, 0, data, nullptr) < 0) {
      return false;
    }
    const std::size_t* found = pcre2_get_ovector_pointer(data);
    *span = {static_cast<std::ptrdiff_t>(found[0]),
             static_cast<std::ptrdiff_t>(found[1])};
    return true;
  }
};
#endif

struct Maker {
  const char* name;
  EnginePtr (*make)(const Row& row);
};

// A row of minutes for an engine says no more than its absence.
bool takes_too_long(const Row& row, std::string_view engine) {
  const bool forks = row.name.starts_with("(a|b)*a") ||
                     row.name.ends_with("absent") ||
                     row.name.ends_with(")*, groups");
  return engine == "glibc" && forks && row.name[0] == '(';
}

constexpr Maker kMakers[] = {
    {"velprobe", Velprobe::make}, {"glibc", Glibc::make},
#ifdef VELPROBE_HAVE_TRE
    {"tre", Tre::make},
#endif
#ifdef VELPROBE_HAVE_RE2
    {"re2", Re2::make},
#endif
#ifdef VELPROBE_HAVE_PCRE2
    {"pcre2jit", Pcre2::make},
#endif
};

std::mt19937& random_numbers() {
  static std::mt19937 random(11);
  return random;
}

std::string random_word(std::size_t syllables) {
  static const char* const kSyllables[] = {
      "the", "er",  "in",   "an", "on",  "re",  "al",  "st", "ing", "tion",
      "ho",  "sea", "ment", "li", "pro", "ver", "com", "ta", "ly",  "ness",
      "oo",  "de",  "wi",   "th", "be",  "ar",  "gra", "mi", "sh",  "ket"};
  std::string word;
  for (; syllables > 0; --syllables) {
    word += kSyllables[random_numbers()() % std::size(kSyllables)];
  }
  return word;
}

// A megabyte of prose with something to find every few thousand bytes.
std::string make_prose() {
  static const char* const kFinds[] = {"2026-11-21", "jane.doe@example.org",
                                       "https://example.org/a/b?c=d",
                                       "Sherlock Holmes", "SHERLOCK HOLMES"};
  std::string text;
  std::size_t line = 0;
  while (text.size() < 1 << 20) {
    std::string word = random_word(1 + random_numbers()() % 3);
    if (random_numbers()() % 12 == 0) {
      word[0] = static_cast<char>(word[0] - 32);
    }
    if (random_numbers()() % 4 == 0) word = "the";
    if (random_numbers()() % 3000 == 0) {
      word = kFinds[random_numbers()() % std::size(kFinds)];
    }
    text += word;
    text += random_numbers()() % 15 == 0 ? ", " : " ";
    if (text.size() - line > 75) {
      text.back() = '\n';
      line = text.size();
    }
  }
  return text;
}

const std::string& prose() {
  static const std::string text = make_prose();
  return text;
}

constexpr char kAccessLine[] =
    "192.168.17.203 - jane [21/Nov/2026:17:03:11 +0000] \"GET "
    "/static/images/logo-large.png HTTP/1.1\" 200 48231";
constexpr char kAccessPattern[] =
    "^([0-9.]+) ([^ ]+) ([^ ]+) \\[([^]]+)\\] \"([A-Z]+) ([^ \"]+) "
    "HTTP/([0-9.]+)\" ([0-9]{3}) ([0-9]+|-)";
constexpr char kSyslogLine[] =
    "Nov 21 17:03:11 gateway sshd[21733]: Failed password for invalid user "
    "admin from 203.0.113.77 port 51022 ssh2";
constexpr char kSyslogPattern[] =
    "^([A-Z][a-z]{2} +[0-9]+ [0-9:]+) ([^ ]+) ([a-z]+)\\[([0-9]+)\\]: (.*)$";
constexpr char kUri[] =
    "https://jane@example.org:8443/over/there/index.html?type=animal&name="
    "narwhal#nose";
constexpr char kUriPattern[] =
    "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?";

std::string make_log() {
  std::string text;
  while (text.size() < 1 << 20) {
    std::string line = kAccessLine;
    line.replace(8, 2, std::to_string(10 + random_numbers()() % 90));
    text += line + " " + random_word(4) + " " + random_word(9) + "\n";
  }
  return text;
}

const std::string& log_text() {
  static const std::string text = make_log();
  return text;
}

std::string random_letters(const char* letters, unsigned n, std::size_t size) {
  std::string text;
  while (text.size() < size) text += letters[random_numbers()() % n];
  return text;
}

std::string thousand_words() {
  std::string all;
  for (int i = 0; i < 1000; ++i) {
    all += (i != 0 ? "|" : "") + random_word(3 + random_numbers()() % 2);
  }
  return all;
}

// Every match in the text.
std::size_t find_all(Engine& engine, const std::string& text) {
  std::size_t count = 0;
  std::size_t begin = 0;
  for (RegexSpan span{};
       begin <= text.size() && engine.find(text, begin, &span); ++count) {
    begin = static_cast<std::size_t>(span.end + (span.begin == span.end));
  }
  return count;
}

void add_text(const Row& row, const std::string& text) {
  for (const Maker& maker : kMakers) {
    if (takes_too_long(row, maker.name)) continue;
    benchmark::RegisterBenchmark(
        (row.name + "/" + maker.name).c_str(),
        [row, &text, make = maker.make](benchmark::State& state) {
          const EnginePtr engine = make(row);
          if (engine == nullptr) return state.SkipWithError("refused");
          std::size_t count = 0;
          for (auto _ : state) count = find_all(*engine, text);
          state.counters["matches"] = static_cast<double>(count);
          state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) *
                                  state.iterations());
        });
  }
}

void add_line(const Row& row, const std::string& text) {
  for (const Maker& maker : kMakers) {
    benchmark::RegisterBenchmark(
        (row.name + "/" + maker.name).c_str(),
        [row, &text, make = maker.make](benchmark::State& state) {
          const EnginePtr engine = make(row);
          if (engine == nullptr) return state.SkipWithError("refused");
          RegexSpan span{};
          bool found = false;
          for (auto _ : state) {
            found = engine->find(text, 0, &span);
            benchmark::DoNotOptimize(span);
          }
          if (!found) state.SkipWithError("no match");
        });
  }
}

// Compiling, and matching the same text so many times.
void add_compile(const Row& row, const std::string& text, int times) {
  for (const Maker& maker : kMakers) {
    benchmark::RegisterBenchmark(
        (row.name + "/" + maker.name).c_str(),
        [row, &text, times, make = maker.make](benchmark::State& state) {
          RegexSpan span{};
          for (auto _ : state) {
            const EnginePtr engine = make(row);
            if (engine == nullptr) return state.SkipWithError("refused");
            for (int i = 0; i < times; ++i) engine->find(text, 0, &span);
            benchmark::DoNotOptimize(span);
          }
        });
  }
}

void add_rows() {
  constexpr unsigned kFold = kRegexExtended | kRegexIgnoreCase;
  static const std::string xs(1 << 15, 'x'), as(1 << 15, 'a');
  static const std::string ab = random_letters("ab", 2, 1 << 18);
  static const std::string abc = random_letters("aabbc", 5, 1 << 18);
  static const std::string access = kAccessLine, syslog = kSyslogLine,
                           uri = kUri, abcd = "abcd", empty;
  static const std::string words = thousand_words();
  add_text({"literal rare", "Sherlock Holmes"}, prose());
  add_text({"literal absent", "Zanzibar"}, prose());
  add_text({"literal, case ignored", "sherlock holmes", kFold}, prose());
  add_text({"every word", "[a-z]+"}, prose());
  add_text({"capital and ending", "[A-Z][a-z]+e[rst]"}, prose());
  add_text({"date", "[0-9]{4}-[0-9]{2}-[0-9]{2}"}, prose());
  add_text({"mail address", "[a-zA-Z0-9._-]+@[a-zA-Z0-9.-]+"}, prose());
  add_text({"uri in prose", "[a-z]+://[^ \n/]+(/[^ \n]*)?"}, prose());
  add_text({"ipv4 in a log", "[0-9]{1,3}(\\.[0-9]{1,3}){3}"}, log_text());
  add_text({"three words, case ignored", "failure|warning|holmes", kFold},
           prose());
  add_text({"1,000 words", words}, prose());
  add_text({"whole word", "[[:<:]]the[[:>:]]"}, prose());
  add_line({"access line, 9 groups", kAccessPattern, kRegexExtended, 10},
           access);
  add_line({"access line, yes or no", kAccessPattern, kRegexExtended, 0},
           access);
  add_line({"syslog line, 5 groups", kSyslogPattern, kRegexExtended, 6},
           syslog);
  add_line({"uri, 9 groups", kUriPattern, kRegexExtended, 10}, uri);
  add_line({"(a|ab)(c|bcd)(d*)", "(a|ab)(c|bcd)(d*)", kRegexExtended, 4}, abcd);
  const std::string nested = "((a{1,5}b?){2,6}c?){3,8}";
  add_text({"nested counts", nested}, abc);
  add_text({"nested counts, groups", nested, kRegexExtended, 3}, abc);
  add_text(
      {"((a)|(aa)|(aaa))*, groups", "((a)|(aa)|(aaa))*", kRegexExtended, 5},
      as);
  add_text({"(a|a?)+b absent", "(a|a?)+b"}, as);
  add_text({"(x+x+)+y absent", "(x+x+)+y"}, xs);
  add_text({"(a?){30}a{30}", "(a?){30}a{30}"}, as);
  add_text({"(a|b)*a(a|b){12}c", "(a|b)*a(a|b){12}c"}, ab);
  add_text({"(a|b)*a(a|b){60}c", "(a|b)*a(a|b){60}c"}, ab);
  add_text({"(a|b)*a(a|b){12}c, c at the end of lines", "(a|b)*a(a|b){12}c"},
           abc);
  add_text({"double letter", "\\([a-z]\\)\\1", 0}, prose());
  add_compile({"compile literal", "Sherlock"}, empty, 0);
  add_compile({"compile log line", kAccessPattern, kRegexExtended, 10}, empty,
              0);
  add_compile({"compile 1,000 words", words}, empty, 0);
  add_compile({"compile nested counts", "((a{1,20}b?){1,20}c?){1,20}"}, empty,
              0);
  add_compile({"compile, 100 log lines", kAccessPattern, kRegexExtended, 10},
              access, 100);
}

[[maybe_unused]] const bool kRowsAdded = (add_rows(), true);

}  // namespace
}  // namespace velprobe
