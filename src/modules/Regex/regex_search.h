// The runs of a match: where it ends, where it begins, what its groups are.
#ifndef VELPROBE_MODULES_REGEX_REGEX_SEARCH_H_
#define VELPROBE_MODULES_REGEX_REGEX_SEARCH_H_

#include "regex_scratch.h"

namespace velprobe {

// find_end finds the end of the leftmost and longest match at or behind begin;
// any asks only whether there is one. No byte is read twice.
Found find_end(const Subject& subject, Scratch& scratch, std::size_t begin,
               bool any, std::size_t* out_end);

// find_begin finds the leftmost begin, not before begin, of a match that ends
// at end, which there is.
Found find_begin(const Subject& subject, Scratch& scratch, std::size_t begin,
                 std::size_t end, std::size_t* out_begin);

// simulate_search finds the same span as both, by simulation.
Found simulate_search(const Subject& subject, Scratch& scratch,
                      std::size_t begin, bool any, RegexSpan* out_span);

// find_span does all that; with any only whether there is a match is known, and
// *out_span is without meaning.
Found find_span(const Subject& subject, Scratch& scratch, std::size_t begin,
                bool any, RegexSpan* out_span);

// find_by_one_pass tries the place where a match could first begin, which is
// then *out_span's begin. kYes: that is the match, and spans has its groups.
// kNo: there is none. kGivenUp: nothing is known of that place.
Found find_by_one_pass(const Subject& subject, Scratch& scratch,
                       std::size_t begin, RegexSpan* out_span, RegexSpan* spans,
                       std::size_t num_spans);

// find_groups fills in the spans of the groups numbered 1 to num_spans - 1 of
// the match span; they are -1 before. Returns 0 or kRegexNoSpace.
int find_groups(const Subject& subject, Scratch& scratch, RegexSpan span,
                RegexSpan* spans, std::size_t num_spans);

// match_backrefs does the whole of a match for an expression with
// back-references.
int match_backrefs(const Subject& subject, Scratch& scratch, std::size_t begin,
                   RegexSpan* spans, std::size_t num_spans);

// last_match_steps tells the steps of the last match, for tests.
std::uint64_t last_match_steps(const Regex& regex);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_SEARCH_H_
