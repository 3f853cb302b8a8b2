// Regular expressions as POSIX defines them, extended and basic, over bytes:
// the leftmost and longest match, and every group by the order of the standard.
// The time for a match grows linearly with the text, whatever the expression,
// but where a basic expression refers back to a group.
#ifndef VELPROBE_MODULES_REGEX_REGEX_H_
#define VELPROBE_MODULES_REGEX_REGEX_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace velprobe {
struct RegexProgram;  // the library's own
}

#pragma GCC visibility push(default)
namespace velprobe {

// Flags of regex_compile: extended instead of basic notation; ASCII letters
// match in both cases; no match reports any span; "." and "[^...]" leave out
// the newline while "^" and "$" match around one too.
inline constexpr unsigned kRegexExtended = 1;
inline constexpr unsigned kRegexIgnoreCase = 2;
inline constexpr unsigned kRegexNoSpans = 4;
inline constexpr unsigned kRegexNewline = 8;

// Flags of regex_match: the text's begin is no begin of a line ("^" does not
// match there), its end no end of a line.
inline constexpr unsigned kRegexNotLineBegin = 1;
inline constexpr unsigned kRegexNotLineEnd = 2;

// What compiling and matching return besides 0; the numbers are regcomp's.
enum RegexError : int {
  kRegexNoMatch = 1,
  kRegexBadPattern,
  kRegexBadCollation,
  kRegexBadClass,
  kRegexBadEscape,
  kRegexBadReference,
  kRegexBadBracket,
  kRegexBadParenthesis,
  kRegexBadBrace,
  kRegexBadCounts,
  kRegexBadRange,
  kRegexNoSpace,
  kRegexBadRepetition,
  kRegexBadArgument,
};

// RegexSpan is a part of the text as offsets into it, the end excluded. Both
// are -1 where a group took no part in the match.
struct RegexSpan {
  std::ptrdiff_t begin;
  std::ptrdiff_t end;
};

// Regex is a compiled expression. Any number of threads may match with one at
// the same time. regex_free ends it.
struct Regex {
  std::size_t num_groups = 0;
  // Where in the pattern compiling failed: the operator, the bracket or the
  // parenthesis at fault. 0 after success.
  std::size_t error_offset = 0;
  RegexProgram* program = nullptr;
};

// RegexLimits bounds what one expression may take.
struct RegexLimits {
  // Bytes of the compiled expression, and again of the tables that a match
  // works with. Groups take 8 further bytes for each byte that they match.
  std::size_t memory = 8 << 20;
  // Parentheses within parentheses.
  std::size_t nesting = 1000;
  // Steps of a match of an expression with back-references. The first few at
  // each begin in the text do not count.
  std::uint64_t backref_steps = 1 << 24;
};

// regex_compile compiles pattern, which may hold any byte, into *regex, whose
// previous contents are overwritten and not freed. Counts reach 32,767.
//
// Returns 0, or what is wrong with the pattern, a RegexError: then there is
// nothing to free, and error_offset tells where. kRegexNoSpace: memory or
// nesting passed its limit. kRegexBadArgument: a null pointer, an unknown flag.
[[nodiscard]] int regex_compile(Regex* regex, std::string_view pattern,
                                unsigned flags, const RegexLimits& limits = {});

// regex_match finds the first match in text at or behind the offset begin, and
// among those that begin there the longest. What stands before begin counts as
// context: "^" does not match there unless begin is 0 or a newline precedes.
// The spans of the whole match and of the groups go to out_spans[0], [1] and
// so on; spans beyond the last group are set to -1. Nothing is stored without
// a match, or when the expression was compiled with kRegexNoSpans. Asking for
// no span, or for only the first, is faster.
//
// Returns 0, kRegexNoMatch, kRegexNoSpace (out of memory, or back-references
// took more than backref_steps) or kRegexBadArgument (null pointers, an unknown
// flag, begin behind the end).
[[nodiscard]] int regex_match(const Regex* regex, std::string_view text,
                              RegexSpan* out_spans, std::size_t num_spans,
                              unsigned flags, std::size_t begin = 0);

// regex_error_name gives the standard's name of a code, as "REG_EPAREN". For
// any other number it is "REG_0x%x", valid until the thread's next call.
[[nodiscard]] const char* regex_error_name(int code);

// regex_error_text gives the constant text that describes a code.
[[nodiscard]] const char* regex_error_text(int code);

// regex_error copies the text of a code, cut at size - 1 characters and ended
// by a NUL, into out_text; a size of 0 copies nothing. Returns the size that
// the whole text needs.
std::size_t regex_error(int code, char* out_text, std::size_t size);

// regex_free releases what regex_compile made; a null or empty one is fine.
void regex_free(Regex* regex);

struct RegexFree {
  void operator()(Regex* regex) const {
    regex_free(regex);
    delete regex;
  }
};

// RegexOwner owns a Regex that new made, and what is compiled into it.
using RegexOwner = std::unique_ptr<Regex, RegexFree>;

}  // namespace velprobe
#pragma GCC visibility pop

#endif  // VELPROBE_MODULES_REGEX_REGEX_H_
