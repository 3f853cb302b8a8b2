// Regular expressions matched by the definition: every way to parse a text is
// tried in the order of the standard. Slow, and without a pattern to read: a
// random tree prints itself in either notation.
#ifndef VELPROBE_TESTS_REGEX_DEFINITION_H_
#define VELPROBE_TESTS_REGEX_DEFINITION_H_

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "modules/Regex/regex.h"

namespace velprobe::definition {

using Captures = std::vector<RegexSpan>;
using Then = std::function<bool(Captures&)>;

enum class Is { kSet, kAssert, kBackref, kCat, kAlt, kRepeat, kGroup };

// A part of an expression. A null Cat is the empty expression.
struct Part {
  Is is = Is::kCat;
  std::string text;      // how a set or an assertion is written
  std::string bytes;     // what a set has, or which assertion: ^ $ < >
  int number = 0;        // of a group or back-reference
  int min = 0, max = 0;  // -1: no end
  std::vector<Part> parts;
  int first_group = 0, end_group = 0;  // those within
};

struct Matcher {
  std::string text;
  unsigned compile_flags = 0;
  unsigned match_flags = 0;
  long steps = 0;  // what is left of them
  std::map<std::tuple<const Part*, std::size_t, std::size_t>, bool> memo = {};
  static constexpr int kMaxDepth = 2000;  // 2 KiB of stack each, sanitized
  int depth = 0;

  static bool is_word(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '_';
  }
  bool word_at(std::size_t p) const {
    return p < text.size() && is_word(text[p]);
  }
  static char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  }

  bool holds(char assertion, std::size_t p) const {
    const bool newline = (compile_flags & kRegexNewline) != 0;
    const bool word_before = p > 0 && word_at(p - 1);
    switch (assertion) {
      case '^':
        if (p == 0) return !(match_flags & kRegexNotLineBegin);
        return newline && text[p - 1] == '\n';
      case '$':
        if (p == text.size()) return !(match_flags & kRegexNotLineEnd);
        return newline && text[p] == '\n';
      case '<':
        return !word_before && word_at(p);
      default:
        return word_before && !word_at(p);
    }
  }

  bool equal(std::size_t a, std::size_t b, std::size_t length) const {
    for (std::size_t i = 0; i < length; ++i) {
      const char x = text[a + i], y = text[b + i];
      const bool fold = (compile_flags & kRegexIgnoreCase) != 0;
      if (fold ? lower(x) != lower(y) : x != y) return false;
    }
    return true;
  }

  // Whether a part can match text from s to t when back-references match
  // anything: without them exactly the language.
  bool fits(const Part& part, std::size_t s, std::size_t t) {
    const auto key = std::make_tuple(&part, s, t);
    const auto known = memo.find(key);
    if (known != memo.end()) return known->second;
    return memo[key] = compute_fits(part, s, t);
  }
  bool compute_fits(const Part& part, std::size_t s, std::size_t t) {
    switch (part.is) {
      case Is::kSet:
        return t == s + 1 && part.bytes.find(text[s]) != std::string::npos;
      case Is::kAssert:
        return s == t && holds(part.bytes[0], s);
      case Is::kBackref:
        return true;
      case Is::kGroup:
        return fits(part.parts[0], s, t);
      case Is::kAlt:
        for (const Part& branch : part.parts) {
          if (fits(branch, s, t)) return true;
        }
        return false;
      case Is::kCat:
        return cat_fits(part, 0, s, t);
      default:
        return repeat_fits(part, 0, s, t);
    }
  }
  bool cat_fits(const Part& cat, std::size_t i, std::size_t s, std::size_t t) {
    if (i == cat.parts.size()) return s == t;
    for (std::size_t c = s; c <= t; ++c) {
      if (fits(cat.parts[i], s, c) && cat_fits(cat, i + 1, c, t)) return true;
    }
    return false;
  }
  bool repeat_fits(const Part& part, int done, std::size_t s, std::size_t t) {
    if (s == t && done >= part.min) return true;
    if (done == part.max) return false;
    const bool null = done < part.min;
    for (std::size_t c = null ? s : s + 1; c <= t; ++c) {
      if (fits(part.parts[0], s, c) && repeat_fits(part, done + 1, c, t)) {
        return true;
      }
    }
    return false;
  }

  // Tries all parses of text from s to t in order until then accepts one.
  bool parse(const Part& part, std::size_t s, std::size_t t, Captures& caps,
             const Then& then) {
    if (--steps < 0 || !fits(part, s, t)) return false;
    // What is tried stays on the stack until then has its answer.
    if (depth == kMaxDepth) steps = 0;
    ++depth;
    const bool accepted = parse_part(part, s, t, caps, then);
    --depth;
    return accepted;
  }
  bool parse_part(const Part& part, std::size_t s, std::size_t t,
                  Captures& caps, const Then& then) {
    switch (part.is) {
      case Is::kSet:
      case Is::kAssert:
        return then(caps);
      case Is::kBackref: {
        const RegexSpan span = caps[static_cast<std::size_t>(part.number)];
        const auto length = static_cast<std::size_t>(span.end - span.begin);
        return span.begin >= 0 && t - s == length &&
               equal(static_cast<std::size_t>(span.begin), s, length) &&
               then(caps);
      }
      case Is::kGroup:
        return parse(part.parts[0], s, t, caps, [&](Captures& inner) {
          Captures set = inner;
          set[static_cast<std::size_t>(part.number)] = {
              static_cast<std::ptrdiff_t>(s), static_cast<std::ptrdiff_t>(t)};
          if (!then(set)) return false;
          inner = set;
          return true;
        });
      case Is::kAlt:
        for (const Part& branch : part.parts) {
          if (parse(branch, s, t, caps, then)) return true;
        }
        return false;
      case Is::kCat:
        return parse_cat(part, 0, s, t, caps, then);
      default:
        return parse_repeat(part, 0, s, t, caps, then);
    }
  }
  bool parse_cat(const Part& cat, std::size_t i, std::size_t s, std::size_t t,
                 Captures& caps, const Then& then) {
    if (i == cat.parts.size()) return s == t && then(caps);
    for (std::size_t c = t + 1; c-- > s;) {
      if (parse(cat.parts[i], s, c, caps, [&](Captures& inner) {
            return parse_cat(cat, i + 1, c, t, inner, then);
          })) {
        return true;
      }
    }
    return false;
  }
  bool iterate(const Part& part, int done, std::size_t s, std::size_t c,
               std::size_t t, Captures& caps, const Then& then) {
    Captures fresh = caps;
    for (int g = part.first_group; g < part.end_group; ++g) {
      fresh[static_cast<std::size_t>(g)] = {-1, -1};
    }
    if (!parse(part.parts[0], s, c, fresh, [&](Captures& inner) {
          return parse_repeat(part, done + 1, c, t, inner, then);
        })) {
      return false;
    }
    caps = fresh;
    return true;
  }
  bool parse_repeat(const Part& part, int done, std::size_t s, std::size_t t,
                    Captures& caps, const Then& then) {
    if (s < t) {
      if (done == part.max) return false;
      const std::size_t least = done < part.min ? s : s + 1;
      for (std::size_t c = t + 1; c-- > least;) {
        if (iterate(part, done, s, c, t, caps, then)) return true;
      }
      return false;
    }
    const bool only = done == 0 && part.max != 0;
    if ((done < part.min || only) && iterate(part, done, s, s, s, caps, then)) {
      return true;
    }
    return done >= part.min && then(caps);
  }

  // Fills caps with the match; false without one.
  bool search(const Part& root, std::size_t begin, Captures& caps) {
    const Captures none(caps.size(), RegexSpan{-1, -1});
    for (std::size_t s = begin; s <= text.size(); ++s) {
      for (std::size_t t = text.size() + 1; t-- > s;) {
        caps = none;
        caps[0] = {static_cast<std::ptrdiff_t>(s),
                   static_cast<std::ptrdiff_t>(t)};
        if (parse(root, s, t, caps, [](Captures&) { return true; })) {
          return true;
        }
      }
    }
    return false;
  }
};

// Maker makes random expressions from the numbers that next gives; the less
// budget, the smaller.
struct Maker {
  std::function<unsigned(unsigned)> next;  // below its argument
  unsigned flags = 0;
  bool backrefs = false;
  int budget = 12;
  int groups = 0;
  std::vector<int> closed = {};

  bool extended() const { return (flags & kRegexExtended) != 0; }

  Part set() {
    static const char* const kTexts[] = {
        "a", "b",     "c",     "a",  "b",     ".", "[ab]",       "[^a]",
        "-", "[^b-]", "[a-c]", "\n", "[^\n]", "B", "[[:upper:]]"};
    Part part;
    part.is = Is::kSet;
    part.text = kTexts[next(std::size(kTexts))];
    for (int i = 1; i < 128; ++i) {
      const auto c = static_cast<char>(i);
      if (has(part.text, c)) part.bytes += c;
    }
    return part;
  }
  bool has(const std::string& set, char c) const {
    const bool negated = set.starts_with("[^");
    if (c == '\n' && (flags & kRegexNewline) && (negated || set == ".")) {
      return false;
    }
    if (set == ".") return true;
    bool in = listed(set, c);
    if (flags & kRegexIgnoreCase && (c | 32) >= 'a' && (c | 32) <= 'z') {
      in = listed(set, static_cast<char>(c | 32)) ||
           listed(set, static_cast<char>(c & ~32));
    }
    return in != negated;
  }
  static bool listed(const std::string& set, char c) {
    if (set == "[a-c]") return c >= 'a' && c <= 'c';
    if (set == "[[:upper:]]") return c >= 'A' && c <= 'Z';
    return set.find(c, set.starts_with("[^") ? 2 : 0) != std::string::npos &&
           ((c != '[' && c != ']') || set.size() == 1);
  }

  Part assertion() {
    static const char* const kTexts[] = {"^", "$", "[[:<:]]", "[[:>:]]"};
    const unsigned i = next(4);
    Part part;
    part.is = Is::kAssert;
    part.text = kTexts[i];
    part.bytes = "^$<>"[i];
    return part;
  }

  Part group() {
    Part part;
    part.is = Is::kGroup;
    part.number = part.first_group = ++groups;
    part.parts.push_back(alternatives());
    part.end_group = groups + 1;
    closed.push_back(part.number);
    return part;
  }

  Part item() {
    --budget;
    const unsigned kind = next(12);
    if (backrefs && kind < 3 && !closed.empty()) {
      Part part;
      part.is = Is::kBackref;
      part.number = closed[next(static_cast<unsigned>(closed.size()))];
      if (part.number < 10) return repeated(part);
    }
    if (kind < 5 && budget > 0) return repeated(group());
    if (kind == 5 && extended()) return assertion();
    return repeated(set());
  }
  Part repeated(Part part) {
    for (unsigned n = 0; next(5) < 2 && n < 2; ++n) {
      static constexpr int kCounts[][2] = {{0, -1}, {1, -1}, {0, 1},  {2, 2},
                                           {0, 2},  {1, 3},  {2, -1}, {0, 3},
                                           {0, -1}, {0, 0},  {3, 4}};
      const auto& counts = kCounts[next(std::size(kCounts))];
      Part outer;
      outer.is = Is::kRepeat;
      outer.min = counts[0];
      outer.max = counts[1];
      outer.first_group = part.first_group;
      outer.end_group = part.end_group;
      outer.parts.push_back(std::move(part));
      part = std::move(outer);
    }
    return part;
  }
  Part sequence() {
    Part part;
    for (unsigned n = next(6); n > 0 && budget > 0; --n) {
      part.parts.push_back(item());
    }
    if (!extended() && next(6) == 0) add_anchor(part, true);
    if (!extended() && next(6) == 0) add_anchor(part, false);
    return part;
  }
  void add_anchor(Part& cat, bool front) {
    Part part;
    part.is = Is::kAssert;
    part.text = part.bytes = std::string(1, front ? '^' : '$');
    cat.parts.insert(front ? cat.parts.begin() : cat.parts.end(), part);
  }
  Part alternatives() {
    Part part;
    part.is = Is::kAlt;
    do {
      part.parts.push_back(sequence());
    } while (next(3) == 0 && --budget > 0);
    return part;
  }

  std::string escaped(const char* op) const {
    return extended() ? op : std::string("\\") + op;
  }
  std::string print(const Part& part) const {
    std::string all;
    switch (part.is) {
      case Is::kSet:
      case Is::kAssert:
        return part.text;
      case Is::kBackref:
        return "\\" + std::to_string(part.number);
      case Is::kGroup:
        return escaped("(") + print(part.parts[0]) + escaped(")");
      case Is::kRepeat:
        return print(part.parts[0]) + print_counts(part);
      default:
        for (const Part& each : part.parts) {
          if (part.is == Is::kAlt && &each != &part.parts[0]) {
            all += escaped("|");
          }
          all += print(each);
        }
        return all;
    }
  }
  std::string print_counts(const Part& part) const {
    if (part.min == 0 && part.max == -1) return "*";
    if (part.min == 1 && part.max == -1) return escaped("+");
    if (part.min == 0 && part.max == 1) return escaped("?");
    std::string counts = escaped("{") + std::to_string(part.min);
    if (part.max != part.min) counts += ",";
    if (part.max > part.min) counts += std::to_string(part.max);
    return counts + escaped("}");
  }
};

}  // namespace velprobe::definition

#endif  // VELPROBE_TESTS_REGEX_DEFINITION_H_
